#include <thread>

#include "lib_test.h"
#include "session/mr_publisher_manager.h"

using namespace lib_test;
using testing::ElementsAre;

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

MRPublisherSettings settings() {
  MRPublisherSettings result;
  result.name = "bot";
  result.has_audio = result.has_video = true;
  return result;
}

class PublisherTest : public JoinedTest {
 protected:
  PublisherTest() { told = &heard; }
  void TearDown() override {
    queue.postAndWait([this] { manager.unpublish(); });
    JoinedTest::TearDown();
  }
  std::string publish() {
    return queue.postAndWait<std::string>(
        [this] { return manager.publish(settings(), kCallbacks, session); });
  }
  void unpublish() {
    EXPECT_TRUE(queue.postAndWait<bool>([this] { return manager.unpublish(); }));
  }

  MRPublisherManager manager{queue};
};

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

}  // namespace
