#include <gmock/gmock.h>

#include <sstream>
#include <thread>

#include "runtime/event_queue.h"
#include "session/mr_publisher_manager.h"
#include "session_test_support.h"

using namespace session_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

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

class PublisherTest : public ScriptedTest {
 protected:
  PublisherTest() {
    told = &heard_by_program;
    queue.start();
    session = MRSession::connect(sessionInfo(), {}, &observer);
    EXPECT_TRUE(observer.heard.waitFor("connected the-session"));
  }
  void TearDown() override {
    queue.postAndWait([this] { manager.unpublish(); });
    session.reset();
    queue.stop();
    ScriptedTest::TearDown();
  }
  std::string publish(const MRPublisherSettings& what) {
    return queue.postAndWait<std::string>(
        [&] { return manager.publish(what, kCallbacks, session); });
  }
  void unpublish() {
    EXPECT_TRUE(queue.postAndWait<bool>([this] { return manager.unpublish(); }));
  }
  /// Everything that the library has to tell has reached the callbacks.
  void settle() {
    queue.flush();
    ASSERT_EQ(scripted_wait_idle(20000), 1);
    queue.flush();
  }

  Journal heard_by_program;
  RecordingObserver observer;
  std::shared_ptr<MRSession> session;
  EventQueue queue{"test"};
  MRPublisherManager manager{queue};
};

TEST_F(PublisherTest, PublishesInTheContractsOrder) {
  MRPublisherSettings what = settings(true, false);
  what.audio_enable_dtx = true;
  what.enable_captions = true;
  scripted_answer("stream_created", "none");
  ASSERT_EQ(scripted_wait_idle(20000), 1);
  const auto before = split(scripted_calls()).size();
  EXPECT_EQ(publish(what), "publisher-1");
  auto calls = split(scripted_calls());
  calls.erase(calls.begin(), calls.begin() + static_cast<long>(before));
  calls.resize(15);
  EXPECT_THAT(
      calls,
      ElementsAre(
          "srn_publisher_settings_new()",
          "srn_publisher_settings_set_name(settings=1, name=\"bot\")",
          "srn_publisher_settings_set_audio_track(settings=1, enabled=1)",
          "srn_publisher_settings_set_video_track(settings=1, enabled=0)",
          "srn_publisher_settings_set_stereo(settings=1, enabled=1)",
          "srn_publisher_settings_set_noise_suppression(settings=1, enabled=0)",
          "srn_publisher_settings_set_echo_cancellation(settings=1, enabled=0)",
          "srn_publisher_settings_set_disable_audio_processing(settings=1, disabled=1)",
          "srn_publisher_settings_set_opus_dtx(settings=1, enabled=1)",
          "srn_publisher_settings_set_video_capturer(settings=1, callbacks=[init destroy start "
          "get_capture_settings user_data])",
          "srn_publisher_new_with_settings(callbacks=[on_stream_created on_stream_destroyed "
          "on_error "
          "user_data], settings=1)",
          "srn_publisher_settings_delete(settings=1)",
          "srn_publisher_set_publish_captions(publisher=1, enabled=1)",
          "srn_session_publish(session=1, publisher=1)",
          "srn_publisher_get_publisher_id(publisher=1)"));
}

TEST_F(PublisherTest, GivesUpAtTheFirstFailureAndLeavesNothing) {
  const std::string kSettings = "ERROR MRPublisherInfo::createSrnEquivalent: Couldn't ";
  struct Row {
    const char* function;
    std::string line;
    std::string line_after;  // of MRPublisher, when the settings could not be made
  };
  const std::string kNoSettings = "ERROR MRPublisher::publish: Couldn't create publisher settings";
  const std::vector<Row> rows{
      {"srn_publisher_settings_new", kSettings + "create srn settings", kNoSettings},
      {"srn_publisher_settings_set_name", kSettings + "set the name. status:7", kNoSettings},
      {"srn_publisher_settings_set_audio_track",
       kSettings + "(de)activate the audio track. status:7", kNoSettings},
      {"srn_publisher_settings_set_video_track",
       kSettings + "(de)activate the video track. status:7", kNoSettings},
      {"srn_publisher_settings_set_stereo", kSettings + "set the stereo/mono audio. status:7",
       kNoSettings},
      {"srn_publisher_settings_set_noise_suppression",
       kSettings + "(de)activate the audio noise suppresion. status:7", kNoSettings},
      {"srn_publisher_settings_set_echo_cancellation",
       kSettings + "(de)activate the audio echo cancellation. status:7", kNoSettings},
      {"srn_publisher_settings_set_disable_audio_processing",
       kSettings + "(de)activate the audio processsing. status:7", kNoSettings},
      {"srn_publisher_settings_set_opus_dtx", kSettings + "(de)activate the audio DTX. status:7",
       kNoSettings},
      {"srn_publisher_settings_set_video_capturer",
       "ERROR MRPublisher::publish:: Couldn't bind the video capturer. status:7", ""},
      {"srn_publisher_new_with_settings", "ERROR MRPublisher::publish: Couldn't create publisher",
       ""},
      {"srn_publisher_set_publish_captions",
       "ERROR MRPublisher::publish: Failed to enable caption publishing. status:7", ""},
      {"srn_session_publish",
       "ERROR MRPublisher::publish: Failed to bind publisher to session. status=7", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.function);
    scripted_fail(row.function, 7, 1);
    const LogCapture log(log4cxx::Level::getError());
    EXPECT_EQ(publish(settings()), "");
    std::vector<std::string> expected{row.line};
    if (!row.line_after.empty()) expected.push_back(row.line_after);
    expected.emplace_back("ERROR MRPublisherManager::publish: Couldn't create publisher");
    EXPECT_EQ(log.lines(), expected);
    EXPECT_EQ(scripted_live("publisher_settings"), 0);
    EXPECT_EQ(scripted_live("publisher"), 0);
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
  EXPECT_EQ(publish(settings()), "");
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
  publish(settings());
  settle();
  scripted_publisher_stream_destroyed("published-1");
  scripted_publisher_error(1541, "timed out");
  settle();
  EXPECT_THAT(heard_by_program.lines(),
              ElementsAre("created published-1", "destroyed publisher-1"));
  EXPECT_FALSE(manager.isPublishing());
  EXPECT_EQ(publish(settings()), "");
  // What still reaches the publisher: media calls, and a stream that comes back.
  EXPECT_TRUE(manager.clearVideoBuffers());
  scripted_publisher_stream_created("again");
  settle();
  EXPECT_EQ(heard_by_program.count("created again"), 1);

  unpublish();
  EXPECT_EQ(publish(settings()), "publisher-2");
  scripted_publisher_error(1541, nullptr);
  settle();
  EXPECT_EQ(heard_by_program.count("error  1541"), 1);
}

TEST_F(PublisherTest, StaysSilentAboutAnUnpublishThatWasAskedFor) {
  publish(settings());
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
  EXPECT_THAT(heard_by_program.lines(), ElementsAre("created published-1", "created published-2"));
  EXPECT_TRUE(manager.isPublishing());
}

TEST_F(PublisherTest, DeletesAPublisherThatCannotBeUnbound) {
  publish(settings());
  settle();
  scripted_fail("srn_session_unpublish", 1113, 1);
  const LogCapture log(log4cxx::Level::getError());
  unpublish();
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_THAT(log.lines().front(),
              testing::MatchesRegex("ERROR MRPublisher::unpublish: Failed to unbind publisher from "
                                    "session. status:1113 session_:0x.* publisher_:0x.*"));
  EXPECT_THAT(split(scripted_calls()),
              Contains("srn_publisher_delete(publisher=1, user_data=null)"));
}

TEST_F(PublisherTest, UnpublishesWhileItsCapturerAsksForTheBuffersLength) {
  // The drained callback runs on the capturer's thread, which the publisher's end waits for.
  publish(settings());
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
  EXPECT_EQ(log.count("DEBUG MRPublisherManager::unpublish: No active publisher"), 1);
}

TEST_F(PublisherTest, SurvivesEventsWithoutAStream) {
  publish(settings());
  settle();
  const LogCapture log(log4cxx::Level::getWarn());
  scripted_publisher_stream_created_null();
  scripted_publisher_stream_destroyed_null();
  settle();
  EXPECT_THAT(log.lines(), ElementsAre("WARN MRPublisher::onStreamCreated: stream is NULL"));
  EXPECT_EQ(heard_by_program.count("destroyed publisher-1"), 1);
}

TEST(PublisherRecords, PrintThemselves) {
  std::ostringstream out;
  out << settings() << MRPublisherInfo{"id", "s"};
  EXPECT_EQ(
      out.str(),
      "MRPublisherSettings: {name: 'bot', hasAudio: true, hasVideo: true, stereoAudioMode: "
      "true, audioNoiseSuppresion: false, audioEchoCancellation: false, audioProcessing: false, "
      "audioEnableDTX: false, enableCaptions: false}MRPublisherInfo: {publisherId: id, "
      "sessionId: s}");
}

}  // namespace
