#include <utility>

#include "core_test.h"
#include "session/mr_subscriber_manager.h"

using namespace core_test;
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
    result.data.on_audio_data = [this](const MRStreamInfo& stream, const MRAudioData& audio) {
      heard.add("audio " + stream.stream_id + " " + std::to_string(audio.number_of_channels_));
    };
    result.data.on_render_frame = [this](const MRStreamInfo&, const MRVideoFrameData& frame) {
      heard.add("frame " + std::to_string(frame.width));
      kept = frame.keep_alive;
      pixels = frame.buffer;
    };
    result.data.on_caption_text = [this](const MRStreamInfo&, const std::string& text, bool last) {
      heard.add("caption '" + text + "' " + (last ? "final" : "open"));
    };
    return result;
  }
  std::string subscribe(const MRSubscriberSettings& settings, const char* id = "stream") {
    return queue.postAndWait<std::string>(
        [&] { return manager.subscribe(id, callbacks(), session, settings); });
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
  std::shared_ptr<const void> kept;
  const uint8_t* pixels = nullptr;
  MRSubscriberManager manager{queue};
};

TEST_F(SubscriberTest, AsksTheLibraryForWhatIsWantedInOrder) {
  scripted_answer("subscriber_connected", "none");
  ASSERT_EQ(scripted_wait_idle(20000), 1);
  const std::string before = scripted_calls();
  EXPECT_EQ(subscribe({true, false, false, 15.0F, Resolution{640, 480}}), "subscriber-1");
  EXPECT_TRUE(unsubscribe());
  EXPECT_EQ(subscribe({false, true, true, 15.0F, Resolution{640, 480}}), "subscriber-2");
  EXPECT_EQ(std::string(scripted_calls()).substr(before.size()), R"(
srn_subscriber_new(stream=3, callbacks=[on_connected on_disconnected on_error on_audio_data user_data])
srn_subscriber_set_subscribe_to_video(subscriber=1, enabled=0)
srn_subscriber_set_subscribe_to_audio(subscriber=1, enabled=1)
srn_subscriber_set_subscribe_to_captions(subscriber=1, enabled=0)
srn_session_subscribe(session=1, subscriber=1)
srn_subscriber_get_subscriber_id(subscriber=1)
srn_session_unsubscribe(session=1, subscriber=1)
srn_subscriber_delete(subscriber=1)
srn_subscriber_new(stream=3, callbacks=[on_connected on_disconnected on_render_frame on_caption_text on_error user_data])
srn_subscriber_set_subscribe_to_video(subscriber=2, enabled=1)
srn_subscriber_set_preferred_resolution(subscriber=2, width=640, height=480)
srn_subscriber_set_preferred_framerate(subscriber=2, framerate=15)
srn_subscriber_set_subscribe_to_audio(subscriber=2, enabled=0)
srn_subscriber_set_subscribe_to_captions(subscriber=2, enabled=1)
srn_session_subscribe(session=1, subscriber=2)
srn_subscriber_get_subscriber_id(subscriber=2))");
}

TEST_F(SubscriberTest, GivesUpAtTheFirstFailureAndLeavesNothing) {
  const std::string kGivenUp =
      "ERROR MRSubscriberManager::subscribe: Couldn't subscribe to stream. stream_id:stream";
  const std::vector<std::pair<const char*, const char*>> rows{
      {"subscriber_new",
       "Couldn't create subscriber for stream:MRStreamInfo: {streamId: stream, connection: "
       "MRConnectionInfo: {connectionId: peer, creationTime: 5, data: data, sessionId: "
       "the-session}}"},
      {"subscriber_set_subscribe_to_video", "Failed to configure video subscription. status:7"},
      {"subscriber_set_preferred_resolution", "Failed to set preferred resolution. status:7"},
      {"subscriber_set_preferred_framerate", "Failed to set preferred framerate. status:7"},
      {"subscriber_set_subscribe_to_audio", "Failed to configure audio subscription. status:7"},
      {"subscriber_set_subscribe_to_captions",
       "Failed to configure caption subscription. status:7"},
      {"session_subscribe", "Failed to bind subscriber to session. status:7"},
  };
  for (const auto& [function, line] : rows) {
    SCOPED_TRACE(function);
    scripted_fail((std::string("srn_") + function).c_str(), 7, 1);
    const LogCapture log(log4cxx::Level::getError());
    EXPECT_EQ(subscribe({true, true, false, 15.0F, Resolution{640, 480}}), "");
    EXPECT_THAT(
        log.lines(),
        ElementsAre(std::string("ERROR MRSubscriber::subscribe (static): ") + line, kGivenUp));
    EXPECT_EQ(scripted_live("subscriber"), 0);
  }
  EXPECT_EQ(scripted_call_count("srn_session_unsubscribe"), 0);
  EXPECT_FALSE(manager.hasSubscribers());
}

TEST_F(SubscriberTest, RefusesWhatCannotBeSubscribedTo) {
  const LogCapture log(log4cxx::Level::getWarn());
  EXPECT_EQ(subscribe(kAll, "unknown"), "");
  addStream("stream");  // the first of an id stays
  queue.postAndWait([this] { manager.removeStream("unknown"); });
  EXPECT_EQ(subscribe({false, false, true, {}, {}}), "");
  const auto alive = std::exchange(session, nullptr);
  EXPECT_EQ(subscribe(), "");
  session = alive;
  EXPECT_EQ(subscribe(), "subscriber-1");
  EXPECT_EQ(subscribe(), "");
  EXPECT_TRUE(unsubscribe());
  EXPECT_FALSE(unsubscribe());
  const std::string kManager = "MRSubscriberManager::";
  EXPECT_THAT(
      log.lines(),
      ElementsAre("WARN " + kManager + "subscribe: Stream not connected. stream_id:unknown",
                  "WARN " + kManager + "addStream: Stream already exists. stream_id:stream",
                  "WARN " + kManager + "removeStream: Stream doesn't exist. stream_id:unknown",
                  "ERROR MRSubscriber::subscribe: At least one of subscribe_to_audio or "
                  "subscribe_to_video must be true",
                  "ERROR " + kManager + "subscribe: Couldn't subscribe to stream. stream_id:stream",
                  "ERROR MRSubscriber::subscribe: Invalid session",
                  "ERROR " + kManager + "subscribe: Couldn't subscribe to stream. stream_id:stream",
                  "WARN " + kManager + "subscribe: Already subscribed to stream. stream_id:stream",
                  "WARN " + kManager + "unsubscribe: Subscriber doesn't exist. stream_id:stream"));
}

TEST_F(SubscriberTest, LocksItsChannelsAtTheFirstSound) {
  subscribe();
  const int16_t sound[] = {0, 0, 0, 7};
  const int16_t silence[] = {0, 0, 0, 0};
  struct Row {
    const int16_t* samples;
    size_t channels;
    long heard_so_far;
  };
  for (const Row& row :
       {Row{silence, 2, 0}, Row{silence, 1, 0}, Row{nullptr, 2, 0}, Row{sound, 2, 1},
        Row{sound, 1, 1}, Row{silence, 1, 1}, Row{silence, 2, 2}}) {
    EXPECT_EQ(scripted_audio("stream", row.samples, row.channels, 4 / row.channels, 48000), 1);
    EXPECT_EQ(heard.count("audio stream 2"), row.heard_so_far);
  }
  scripted_audio_null("stream");
  EXPECT_EQ(heard.count("audio stream 1"), 0);
  EXPECT_EQ(heard.count("audio stream 2"), 2);
}

TEST_F(SubscriberTest, HandsOverCaptionsAndFrames) {
  subscribe();
  scripted_caption("stream", "so", 0);
  scripted_caption("stream", "so far", 1);
  scripted_caption("stream", nullptr, 2);
  EXPECT_EQ(heard.count("caption 'so' open"), 1);
  EXPECT_EQ(heard.count("caption 'so far' final"), 1);
  EXPECT_EQ(heard.count("caption '' open"), 1);

  scripted_frame_spec picture{};
  picture.format = SRN_VIDEO_FRAME_FORMAT_YUV420P;
  picture.width = 4;
  picture.height = 2;
  picture.fill = 9;
  const LogCapture log(log4cxx::Level::getError());
  scripted_frame("stream", &picture);
  scripted_frame_null("stream");
  EXPECT_EQ(heard.count("frame 4"), 1);
  EXPECT_EQ(log.count("ERROR MRSubscriber::onRenderFrame: Failed to convert srn_video_frame to "
                      "MRVideoFrame"),
            1);
  // Whoever keeps the owner keeps the picture, whatever comes after it.
  ASSERT_TRUE(unsubscribe());
  EXPECT_EQ(std::vector<int>(pixels, pixels + 4), (std::vector<int>{9, 10, 11, 12}));
}

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

TEST_F(SubscriberTest, IsHeardOfOnlyWhileItIsSubscribed) {
  scripted_rogue(1);
  subscribe();
  settle();
  scripted_subscriber_error("stream", 1542, nullptr);
  settle();
  EXPECT_TRUE(manager.hasSubscriber("stream"));
  scripted_subscriber_disconnected("stream");
  settle();
  EXPECT_FALSE(manager.hasSubscriber("stream"));
  EXPECT_TRUE(manager.hasStream("stream"));
  EXPECT_THAT(heard.lines(), ElementsAre("connected stream", "error  1542", "disconnected"));
  // Late events and media of a subscriber that is gone.
  scripted_subscriber_disconnected("stream");
  scripted_caption("stream", "late", 0);
  settle();
  EXPECT_EQ(heard.lines().size(), 3u);
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
  EXPECT_THAT(callNames({"srn_session_unsubscribe", "srn_subscriber_delete", "srn_stream_delete",
                         "srn_session_disconnect", "srn_session_delete"}),
              ElementsAre("srn_stream_delete", "srn_stream_delete", "srn_session_unsubscribe",
                          "srn_subscriber_delete", "srn_stream_delete", "srn_session_disconnect",
                          "srn_session_delete"));
}

TEST_F(SubscriberTest, ReportsAFailureToUnbindAndGoesOn) {
  subscribe();
  settle();
  scripted_fail("srn_session_unsubscribe", 1112, 1);
  const LogCapture log(log4cxx::Level::getError());
  EXPECT_TRUE(unsubscribe());
  EXPECT_THAT(log.lines(),
              ElementsAre(testing::MatchesRegex(
                  "ERROR MRSubscriber::unsubscribe: Failed to unbind subscriber from session. "
                  "status:1112, session_:0x.*, subscriber_:0x.*")));
  EXPECT_EQ(scripted_live("subscriber"), 0);
}

}  // namespace
