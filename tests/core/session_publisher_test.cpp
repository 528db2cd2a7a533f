#include <thread>

#include "core_test.h"
#include "session/mr_publisher_manager.h"

using namespace core_test;
using testing::Contains;
using testing::ElementsAre;
using testing::MatchesRegex;

namespace {

Journal* told = nullptr;

const MRPublisherCallbacks kCallbacks{
    .on_stream_created =
        [](const MRPublisher& publisher) {
          told->add("created " + publisher.getStreamInfo().stream_id);
        },
    .on_stream_destroyed =
        [](const MRPublisher& publisher) {
          told->add("destroyed " + publisher.getPublisherInfo().publisher_id);
        },
    .on_error =
        [](const MRPublisher&, const std::string& description, int32_t code) {
          told->add("error " + description + " " + std::to_string(code));
        },
};

MRPublisherSettings settings(bool has_audio = true, bool has_video = true) {
  MRPublisherSettings result;
  result.name = "bot";
  result.has_audio = has_audio;
  result.has_video = has_video;
  return result;
}

class PublisherTest : public JoinedTest {
 protected:
  PublisherTest() { told = &heard; }
  void TearDown() override {
    queue.postAndWait([this] { manager.unpublish(); });
    JoinedTest::TearDown();
  }
  std::string publish(const MRPublisherSettings& what = settings()) {
    return queue.postAndWait<std::string>(
        [&] { return manager.publish(what, kCallbacks, session); });
  }
  void unpublish() {
    EXPECT_TRUE(queue.postAndWait<bool>([this] { return manager.unpublish(); }));
  }

  MRPublisherManager manager{queue};
};

TEST_F(PublisherTest, PublishesInTheContractsOrder) {
  MRPublisherSettings what = settings(true, false);
  what.audio_enable_dtx = true;
  what.enable_captions = true;
  scripted_answer("stream_created", "none");
  ASSERT_EQ(scripted_wait_idle(20000), 1);
  const std::string before = scripted_calls();
  EXPECT_EQ(publish(what), "publisher-1");
  EXPECT_EQ(std::string(scripted_calls()).substr(before.size()), R"(
srn_publisher_settings_new()
srn_publisher_settings_set_name(settings=1, name="bot")
srn_publisher_settings_set_audio_track(settings=1, enabled=1)
srn_publisher_settings_set_video_track(settings=1, enabled=0)
srn_publisher_settings_set_stereo(settings=1, enabled=1)
srn_publisher_settings_set_noise_suppression(settings=1, enabled=0)
srn_publisher_settings_set_echo_cancellation(settings=1, enabled=0)
srn_publisher_settings_set_disable_audio_processing(settings=1, disabled=1)
srn_publisher_settings_set_opus_dtx(settings=1, enabled=1)
srn_publisher_settings_set_video_capturer(settings=1, callbacks=[init destroy start get_capture_settings user_data])
srn_publisher_new_with_settings(callbacks=[on_stream_created on_stream_destroyed on_error user_data], settings=1)
srn_publisher_settings_delete(settings=1)
srn_publisher_set_publish_captions(publisher=1, enabled=1)
srn_session_publish(session=1, publisher=1)
srn_publisher_get_publisher_id(publisher=1))");
}

TEST_F(PublisherTest, GivesUpAtTheFirstFailureAndLeavesNothing) {
  struct Row {
    std::string function;
    std::string failure;
  };
  const std::vector<Row> rows{
      {"publisher_settings_new", "create srn settings"},
      {"publisher_settings_set_name", "set the name. status:7"},
      {"publisher_settings_set_audio_track", "(de)activate the audio track. status:7"},
      {"publisher_settings_set_video_track", "(de)activate the video track. status:7"},
      {"publisher_settings_set_stereo", "set the stereo/mono audio. status:7"},
      {"publisher_settings_set_noise_suppression",
       "(de)activate the audio noise suppresion. status:7"},
      {"publisher_settings_set_echo_cancellation",
       "(de)activate the audio echo cancellation. status:7"},
      {"publisher_settings_set_disable_audio_processing",
       "(de)activate the audio processsing. status:7"},
      {"publisher_settings_set_opus_dtx", "(de)activate the audio DTX. status:7"},
      {"publisher_settings_set_video_capturer",
       "MRPublisher::publish:: Couldn't bind the video capturer. status:7"},
      {"publisher_new_with_settings", "MRPublisher::publish: Couldn't create publisher"},
      {"publisher_set_publish_captions",
       "MRPublisher::publish: Failed to enable caption publishing. status:7"},
      {"session_publish", "MRPublisher::publish: Failed to bind publisher to session. status=7"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.function);
    scripted_fail(("srn_" + row.function).c_str(), 7, 1);
    const LogCapture log(log4cxx::Level::getError());
    EXPECT_EQ(publish(), "");
    std::vector<std::string> expected{"ERROR " + row.failure};
    if (!row.failure.starts_with("MR")) {
      expected = {"ERROR MRPublisherInfo::createSrnEquivalent: Couldn't " + row.failure,
                  "ERROR MRPublisher::publish: Couldn't create publisher settings"};
    }
    expected.emplace_back("ERROR MRPublisherManager::publish: Couldn't create publisher");
    EXPECT_EQ(log.lines(), expected);
    EXPECT_EQ(scripted_live("publisher_settings") + scripted_live("publisher"), 0);
  }
  EXPECT_EQ(scripted_call_count("srn_session_unpublish"), 0);
  EXPECT_FALSE(manager.isPublishing());
}

TEST_F(PublisherTest, RefusesWhatCannotBePublished) {
  const LogCapture log(log4cxx::Level::getWarn());
  EXPECT_EQ(publish(settings(false, false)), "");
  EXPECT_EQ(queue.postAndWait<std::string>(
                [this] { return manager.publish(settings(), kCallbacks, nullptr); }),
            "");
  EXPECT_EQ(publish(settings(true, false)), "publisher-1");
  EXPECT_EQ(publish(), "");
  EXPECT_THAT(log.lines(),
              ElementsAre("ERROR MRPublisher::publish: publisher must have at least audio or video",
                          "ERROR MRPublisherManager::publish: Couldn't create publisher",
                          "ERROR MRPublisherManager::publish: Invalid session",
                          "WARN MRPublisherManager::publish: Already publishing"));
  // The first one is untouched.
  EXPECT_FALSE(manager.getSettings().has_video);
  EXPECT_TRUE(manager.isPublishing());
}

TEST_F(PublisherTest, ReportsTheEndOfAStreamOnceAndRefusesUntilUnpublished) {
  publish();
  settle();
  scripted_publisher_stream_destroyed("published-1");
  scripted_publisher_error(1541, "timed out");
  settle();
  EXPECT_THAT(heard.lines(), ElementsAre("created published-1", "destroyed publisher-1"));
  EXPECT_FALSE(manager.isPublishing());
  EXPECT_EQ(publish(), "");
  // What still reaches the publisher: media calls, and a stream that comes back.
  EXPECT_TRUE(manager.clearVideoBuffers());
  scripted_publisher_stream_created("again");
  settle();
  EXPECT_EQ(heard.count("created again"), 1);

  unpublish();
  EXPECT_EQ(publish(), "publisher-2");
  scripted_publisher_error(1541, nullptr);
  settle();
  EXPECT_EQ(heard.count("error  1541"), 1);
}

TEST_F(PublisherTest, StaysSilentAboutAnUnpublishThatWasAskedFor) {
  publish();
  settle();
  Latch reached;
  Latch go_on;
  queue.post([&] {
    reached.open();
    EXPECT_TRUE(go_on.wait());
    manager.unpublish();
    manager.publish(settings(), kCallbacks, session);
  });
  ASSERT_TRUE(reached.wait());
  // Queued behind the change of publisher: an event of the first must not be taken for the
  // second's.
  scripted_publisher_stream_destroyed("published-1");
  EXPECT_EQ(scripted_wait_idle(20000), 1);
  go_on.open();
  settle();
  EXPECT_THAT(heard.lines(), ElementsAre("created published-1", "created published-2"));
  EXPECT_TRUE(manager.isPublishing());
}

TEST_F(PublisherTest, DeletesAPublisherThatCannotBeUnbound) {
  publish();
  settle();
  scripted_fail("srn_session_unpublish", 1113, 1);
  const LogCapture log(log4cxx::Level::getError());
  unpublish();
  EXPECT_THAT(log.lines(), ElementsAre(MatchesRegex(
                               "ERROR MRPublisher::unpublish: Failed to unbind publisher from "
                               "session. status:1113 session_:0x.* publisher_:0x.*")));
  EXPECT_THAT(calls(), Contains("srn_publisher_delete(publisher=1, user_data=null)"));
}

TEST_F(PublisherTest, UnpublishesWhileItsCapturerAsksForTheBuffersLength) {
  // The drained callback runs on the capturer's thread, which the publisher's end waits for.
  publish();
  settle();
  Latch drained;
  manager.setOnVideoBufferDrainedCallback([&] {
    drained.open();
    while (manager.isPublishing()) std::this_thread::yield();
    EXPECT_EQ(manager.getVideoBufferDuration().count(), 0);
  });
  ASSERT_TRUE(manager.addVideo(MRVideoFrame::create(640, 480, MRVideoFrameFormat::YUV420P)));
  ASSERT_TRUE(drained.wait());
  unpublish();
}

TEST_F(PublisherTest, HasNothingToGiveWithoutAPublisher) {
  const LogCapture log(log4cxx::Level::getTrace());
  EXPECT_FALSE(manager.addVideo(MRVideoFrame::create(2, 2, MRVideoFrameFormat::RGB24)));
  EXPECT_FALSE(manager.clearVideoBuffers());
  manager.setOnVideoBufferDrainedCallback([] {});
  EXPECT_EQ(manager.getOnVideoBufferDrainedCallback(), nullptr);
  EXPECT_EQ(manager.getVideoBufferDuration().count(), 0);
  unpublish();
  for (const char* name : {"addVideo", "clearVideoBuffers", "setOnVideoBufferDrainedCallback"}) {
    EXPECT_EQ(log.count(std::string("TRACE MRPublisherManager::") + name + ": No active publisher"),
              1);
  }
}

TEST_F(PublisherTest, SurvivesEventsWithoutAStream) {
  publish();
  settle();
  const LogCapture log(log4cxx::Level::getWarn());
  scripted_publisher_stream_created_null();
  scripted_publisher_stream_destroyed_null();
  settle();
  EXPECT_THAT(log.lines(), ElementsAre("WARN MRPublisher::onStreamCreated: stream is NULL"));
  EXPECT_EQ(heard.count("destroyed publisher-1"), 1);
}

}  // namespace
