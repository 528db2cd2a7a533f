// Publishers and subscribers on their own, without the library around them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "base/strand.h"
#include "base/thread_keeper.h"
#include "session/publisher.h"
#include "session/stream.h"
#include "session/subscriber.h"
#include "waiting.h"

namespace sarnet {
namespace {

// What a library has once, for one test.
struct Parts {
  Counters counters;
  AudioDevice audio_device{counters};
  HandleTable<Stream, srn_stream> streams{HandleKind::kStream, "stream"};
  HandleTable<Connection, srn_connection> connections{HandleKind::kConnection, "connection"};
  HandleTable<VideoFrame, srn_video_frame> frames{HandleKind::kVideoFrame, "frame"};
  HandleTable<VideoTrack, srn_video_capturer> capturers{HandleKind::kVideoCapturer, "capturer"};
  const Context context{counters, audio_device, streams, connections, frames, capturers};
};

class FakeEngine : public Engine {
 public:
  void join(const JoinRequest&, std::shared_ptr<SessionSink>) override {}
  void leave() override {}
  std::shared_ptr<PublishedStream> publish(const PublishRequest& request,
                                           std::shared_ptr<PublicationSink>) override {
    log.add("publish " + request.name);
    return nullptr;  // as when the session has ended
  }
  void unpublish(const std::shared_ptr<PublishedStream>&) override { log.add("unpublish"); }
  void subscribe(const std::string& stream_id, std::shared_ptr<SubscriptionSink>) override {
    log.add("subscribe " + stream_id);
    if (refuses) throw std::runtime_error("out of something");
  }
  void unsubscribe(const std::shared_ptr<SubscriptionSink>&) override { log.add("unsubscribe"); }

  Journal log;
  bool refuses = false;
};

class SessionParts : public testing::Test {
 protected:
  ~SessionParts() override {
    strand_->close();
    EXPECT_TRUE(ThreadKeeper::instance().join_all(kDeadline));
  }

  Parts parts_;
  const std::shared_ptr<FakeEngine> engine_ = std::make_shared<FakeEngine>();
  const std::shared_ptr<Strand> strand_ = std::make_shared<Strand>("test");
  const int session_ = 0;
};

TEST_F(SessionParts, AreFreeForTheNextSessionWhenTheFirstRefusedThem) {
  const srn_subscriber_callbacks callbacks{};
  const auto subscriber =
      std::make_shared<Subscriber>(parts_.context, StreamInfo{"a stream", "", {}}, callbacks);
  engine_->refuses = true;
  EXPECT_THROW(subscriber->bind(&session_, strand_, engine_), std::runtime_error);
  engine_->refuses = false;
  EXPECT_TRUE(subscriber->bind(&session_, strand_, engine_));
  EXPECT_FALSE(subscriber->bind(&session_, strand_, engine_)) << "bound twice";
  EXPECT_TRUE(subscriber->unbind(&session_));
  EXPECT_THAT(engine_->log.lines(), testing::ElementsAre("subscribe a stream", "unsubscribe",
                                                         "subscribe a stream", "unsubscribe"));
  subscriber->close();
  EXPECT_FALSE(subscriber->bind(&session_, strand_, engine_)) << "bound after its end";
}

TEST_F(SessionParts, TellAPublisherThatItsSessionIsOver) {
  static Journal errors;
  srn_publisher_callbacks callbacks{};
  callbacks.on_error = [](srn_publisher*, void*, const char* text, srn_publisher_error_code) {
    errors.add(text);
  };
  PublisherSettings settings;
  settings.name = "camera";
  settings.video_track = false;
  const auto publisher = std::make_shared<Publisher>(parts_.context, callbacks, settings);
  ASSERT_TRUE(publisher->bind(&session_, strand_, engine_));
  EXPECT_TRUE(errors.await("The session is over"));
  EXPECT_TRUE(publisher->unbind(&session_)) << "what ended by itself may be ended once";
  EXPECT_FALSE(publisher->unbind(&session_));
  publisher->close();
}

}  // namespace
}  // namespace sarnet
