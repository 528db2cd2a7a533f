#include "lib_test.h"
#include "session/mr_subscriber_manager.h"

using namespace lib_test;
using testing::ElementsAre;

namespace {

class SubscriberTest : public JoinedTest {
 protected:
  SubscriberTest() { addStream("stream"); }
  void TearDown() override {
    queue.postAndWait([this] { manager.reset(); });
    JoinedTest::TearDown();
  }
  void addStream(const std::string& id) {
    srn_stream* const stream = scripted_stream_new(id.c_str(), "peer", "data", "the-session", 5);
    queue.postAndWait([&] { manager.addStream(id, MRStream(stream)); });
    srn_stream_delete(stream);
  }
  MRSubscriberCallbacks callbacks() {
    MRSubscriberCallbacks result;
    result.on_connected = [this](const MRSubscriber& subscriber) {
      heard.add("connected " + subscriber.getStreamInfo().stream_id);
    };
    result.on_disconnected = [this](const MRSubscriber&) { heard.add("disconnected"); };
    result.on_error = [this](const MRSubscriber&, const std::string& text, int32_t code) {
      heard.add("error " + text + " " + std::to_string(code));
    };
    return result;
  }
  std::string subscribe() { return subscribeWith(callbacks()); }
  std::string subscribeWith(const MRSubscriberCallbacks& what) {
    return queue.postAndWait<std::string>(
        [&] { return manager.subscribe("stream", what, session, kAll); });
  }
  bool unsubscribe() {
    return queue.postAndWait<bool>([this] { return manager.unsubscribe("stream"); });
  }

  const MRSubscriberSettings kAll{true, true, true, {}, {}};
  MRSubscriberManager manager{queue};
};

TEST_F(SubscriberTest, MayGoWhileItsMediaAreBeingDelivered) {
  scripted_media_on_delivery_threads(1);
  Latch inside;
  Latch go_on;
  MRSubscriberCallbacks slow = callbacks();
  slow.data.on_caption_text = [&, label = std::string("a label that lives with the callable")](
                                  const MRStreamInfo& stream, const std::string&, bool) {
    inside.open();
    EXPECT_TRUE(go_on.wait());
    heard.add(label + " " + stream.connection.connection_id);
  };
  subscribeWith(slow);
  slow = {};
  scripted_caption("stream", "first", 0);
  scripted_caption("stream", "second", 0);
  ASSERT_TRUE(inside.wait());
  EXPECT_TRUE(unsubscribe());  // does not wait for the caption
  EXPECT_EQ(scripted_live("subscriber"), 0);
  go_on.open();
  ASSERT_EQ(scripted_wait_idle(20000), 1);
  EXPECT_EQ(heard.count("a label that lives with the callable peer"), 1);
}

TEST_F(SubscriberTest, EndsQuietlyWhenAskedTo) {
  const std::vector<std::pair<const char*, std::function<void()>>> rows{
      {"unsubscribe", [this] { manager.unsubscribe("stream"); }},
      {"stream gone", [this] { manager.removeStream("stream"); }},
      {"session gone", [this] { manager.reset(); }},
  };
  for (const auto& [name, end] : rows) {
    SCOPED_TRACE(name);
    if (!manager.hasStream("stream")) addStream("stream");
    subscribe();
    settle();
    // An event that is queued already finds nobody any more.
    Latch queued;
    queue.post([&, &end = end] {
      EXPECT_TRUE(queued.wait());
      end();
    });
    scripted_subscriber_error("stream", 1542, "late");
    scripted_subscriber_disconnected("stream");
    EXPECT_EQ(scripted_wait_idle(20000), 1);
    queued.open();
    settle();
    EXPECT_FALSE(manager.hasSubscribers());
  }
  EXPECT_THAT(heard.lines(),
              ElementsAre("connected stream", "connected stream", "connected stream"));
  EXPECT_EQ(scripted_call_count("srn_session_unsubscribe"), 3);
}

TEST_F(SubscriberTest, MayBeReplacedByItsOwnCallback) {
  MRSubscriberCallbacks again = callbacks();
  again.on_disconnected = [this](const MRSubscriber& subscriber) {
    EXPECT_TRUE(manager.unsubscribe("stream"));
    // The library's side is gone at once, the record stays for the callback.
    EXPECT_EQ(scripted_live("subscriber"), 0);
    EXPECT_EQ(manager.subscribe("stream", callbacks(), session, kAll), "subscriber-2");
    heard.add("replaced " + subscriber.getStreamInfo().stream_id);
  };
  subscribeWith(again);
  settle();
  Latch queued;
  queue.post([&] { EXPECT_TRUE(queued.wait()); });
  scripted_subscriber_disconnected("stream");
  // Of the first one, but run when the second has taken its place.
  scripted_subscriber_disconnected("stream");
  scripted_subscriber_error("stream", 1600, "stale");
  EXPECT_EQ(scripted_wait_idle(20000), 1);
  queued.open();
  settle();
  EXPECT_THAT(heard.lines(),
              ElementsAre("connected stream", "replaced stream", "connected stream"));
  EXPECT_TRUE(manager.hasSubscriber("stream"));
}

TEST_F(SubscriberTest, LetsTheSessionGoFromItsOwnCallback) {
  MRSubscriberCallbacks ending = callbacks();
  ending.on_connected = [this](const MRSubscriber&) {
    manager.reset();
    session.reset();
    EXPECT_EQ(scripted_call_count("srn_session_delete"), 1);
    heard.add("ended");
  };
  subscribeWith(ending);
  ASSERT_TRUE(heard.await("ended"));
  const std::vector<std::string> order = {"srn_session_unsubscribe", "srn_subscriber_delete",
                                          "srn_session_disconnect", "srn_session_delete"};
  EXPECT_EQ(callNames(order), order);
}

}  // namespace
