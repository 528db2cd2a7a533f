#include <gmock/gmock.h>

#include <sstream>
#include <thread>

#include "runtime/event_queue.h"
#include "session/mr_subscriber_manager.h"
#include "session_test_support.h"

using namespace session_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SubscriberTest : public ScriptedTest {
 protected:
  SubscriberTest() {
    queue.start();
    session = MRSession::connect(sessionInfo(), {}, &observer);
    EXPECT_TRUE(observer.heard.waitFor("connected the-session"));
    addStream("stream");
  }
  void TearDown() override {
    queue.postAndWait([this] { manager.reset(); });
    session.reset();
    queue.stop();
    ScriptedTest::TearDown();
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
      kept.push_back(frame.keep_alive);
      pixels = frame.buffer;
    };
    result.data.on_caption_text = [this](const MRStreamInfo&, const std::string& text, bool last) {
      heard.add("caption '" + text + "' " + (last ? "final" : "open"));
    };
    return result;
  }
  std::string subscribe(const MRSubscriberSettings& settings = all(), const char* id = "stream") {
    return queue.postAndWait<std::string>(
        [&] { return manager.subscribe(id, callbacks(), session, settings); });
  }
  bool unsubscribe() {
    return queue.postAndWait<bool>([this] { return manager.unsubscribe("stream"); });
  }
  void settle() {
    queue.flush();
    ASSERT_EQ(scripted_wait_idle(20000), 1);
    queue.flush();
  }
  static MRSubscriberSettings all() { return {true, true, true, {}, {}}; }

  Journal heard;
  std::vector<std::shared_ptr<const void>> kept;
  const uint8_t* pixels = nullptr;
  RecordingObserver observer;
  std::shared_ptr<MRSession> session;
  EventQueue queue{"test"};
  MRSubscriberManager manager{queue};
};

TEST_F(SubscriberTest, AsksTheLibraryForWhatIsWantedInOrder) {
  struct Row {
    MRSubscriberSettings settings;
    std::string slots;
    std::vector<std::string> calls;
  };
  const std::vector<Row> rows{
      {{true, false, false, 15.0F, Resolution{640, 480}},
       "on_connected on_disconnected on_error on_audio_data user_data",
       {"srn_subscriber_set_subscribe_to_video(subscriber=1, enabled=0)",
        "srn_subscriber_set_subscribe_to_audio(subscriber=1, enabled=1)",
        "srn_subscriber_set_subscribe_to_captions(subscriber=1, enabled=0)"}},
      {{false, true, true, 15.0F, Resolution{640, 480}},
       "on_connected on_disconnected on_render_frame on_caption_text on_error user_data",
       {"srn_subscriber_set_subscribe_to_video(subscriber=2, enabled=1)",
        "srn_subscriber_set_preferred_resolution(subscriber=2, width=640, height=480)",
        "srn_subscriber_set_preferred_framerate(subscriber=2, framerate=15)",
        "srn_subscriber_set_subscribe_to_audio(subscriber=2, enabled=0)",
        "srn_subscriber_set_subscribe_to_captions(subscriber=2, enabled=1)"}},
  };
  scripted_answer("subscriber_connected", "none");
  int number = 0;
  for (const Row& row : rows) {
    const std::string n = std::to_string(++number);
    ASSERT_EQ(scripted_wait_idle(20000), 1);
    const auto before = split(scripted_calls()).size();
    EXPECT_EQ(subscribe(row.settings), "subscriber-" + n);
    auto calls = split(scripted_calls());
    calls.erase(calls.begin(), calls.begin() + static_cast<long>(before));
    std::vector<std::string> expected{"srn_subscriber_new(stream=3, callbacks=[" + row.slots +
                                      "])"};
    expected.insert(expected.end(), row.calls.begin(), row.calls.end());
    expected.push_back("srn_session_subscribe(session=1, subscriber=" + n + ")");
    expected.push_back("srn_subscriber_get_subscriber_id(subscriber=" + n + ")");
    EXPECT_EQ(calls, expected);
    EXPECT_TRUE(unsubscribe());
  }
}

TEST_F(SubscriberTest, GivesUpAtTheFirstFailureAndLeavesNothing) {
  const std::string kStatic = "ERROR MRSubscriber::subscribe (static): ";
  const std::vector<std::pair<const char*, std::string>> rows{
      {"srn_subscriber_new",
       kStatic +
           "Couldn't create subscriber for stream:MRStreamInfo: {streamId: stream, connection: "
           "MRConnectionInfo: {connectionId: peer, creationTime: 5, data: data, sessionId: "
           "the-session}}"},
      {"srn_subscriber_set_subscribe_to_video",
       kStatic + "Failed to configure video subscription. status:7"},
      {"srn_subscriber_set_preferred_resolution",
       kStatic + "Failed to set preferred resolution. status:7"},
      {"srn_subscriber_set_preferred_framerate",
       kStatic + "Failed to set preferred framerate. status:7"},
      {"srn_subscriber_set_subscribe_to_audio",
       kStatic + "Failed to configure audio subscription. status:7"},
      {"srn_subscriber_set_subscribe_to_captions",
       kStatic + "Failed to configure caption subscription. status:7"},
      {"srn_session_subscribe", kStatic + "Failed to bind subscriber to session. status:7"},
  };
  for (const auto& [function, line] : rows) {
    SCOPED_TRACE(function);
    scripted_fail(function, 7, 1);
    const LogCapture log(log4cxx::Level::getError());
    EXPECT_EQ(subscribe({true, true, false, 15.0F, Resolution{640, 480}}), "");
    EXPECT_THAT(log.lines(),
                ElementsAre(line,
                            "ERROR MRSubscriberManager::subscribe: Couldn't subscribe to "
                            "stream. stream_id:stream"));
    EXPECT_EQ(scripted_live("subscriber"), 0);
  }
  EXPECT_EQ(scripted_call_count("srn_session_unsubscribe"), 0);
  EXPECT_FALSE(manager.hasSubscribers());
}

TEST_F(SubscriberTest, RefusesWhatCannotBeSubscribedTo) {
  const LogCapture log(log4cxx::Level::getWarn());
  EXPECT_EQ(subscribe(all(), "unknown"), "");
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
  queue.postAndWait([&] { manager.subscribe("stream", slow, session, all()); });
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
    EXPECT_EQ(manager.subscribe("stream", callbacks(), session, all()), "subscriber-2");
    heard.add("replaced " + subscriber.getStreamInfo().stream_id);
  };
  queue.postAndWait([&] { manager.subscribe("stream", again, session, all()); });
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
  queue.postAndWait([&] { manager.subscribe("stream", ending, session, all()); });
  ASSERT_TRUE(heard.waitFor("ended"));
  EXPECT_THAT(callNames({"srn_session_unsubscribe", "srn_subscriber_delete", "srn_stream_delete",
                         "srn_session_disconnect", "srn_session_delete"}),
              ElementsAre("srn_stream_delete", "srn_stream_delete", "srn_session_unsubscribe",
                          "srn_subscriber_delete", "srn_stream_delete", "srn_session_disconnect",
                          "srn_session_delete"));
}

TEST_F(SubscriberTest, KeepsTheFirstStreamOfAnId) {
  const LogCapture log;
  addStream("stream");
  queue.postAndWait([this] { manager.removeStream("unknown"); });
  EXPECT_THAT(
      log.lines(),
      ElementsAre(
          "WARN MRSubscriberManager::addStream: Stream already exists. stream_id:stream",
          "WARN MRSubscriberManager::removeStream: Stream doesn't exist. stream_id:unknown"));
  EXPECT_EQ(scripted_live("stream"), 1);
}

TEST_F(SubscriberTest, ReportsAFailureToUnbindAndGoesOn) {
  subscribe();
  scripted_fail("srn_session_unsubscribe", 1112, 1);
  const LogCapture log(log4cxx::Level::getError());
  EXPECT_TRUE(unsubscribe());
  EXPECT_THAT(log.lines(),
              ElementsAre(testing::MatchesRegex(
                  "ERROR MRSubscriber::unsubscribe: Failed to unbind subscriber from session. "
                  "status:1112, session_:0x.*, subscriber_:0x.*")));
  EXPECT_EQ(scripted_live("subscriber"), 0);
}

TEST(SubscriberRecords, PrintThemselves) {
  std::ostringstream out;
  out << MRSubscriberInfo{"id", "stream", "session"} << MRSubscriberSettings{}
      << MRSubscriberSettings{false, true, true, 12.5F, Resolution{640, 480}};
  EXPECT_EQ(out.str(),
            "MRSubscriberInfo: {subscriberId: id, sessionId: session, publisherStreamId: "
            "stream}MRSubscriberSettings: {wantsAudio: 1, wantsVideo: 1, wantsCaptions: "
            "0}MRSubscriberSettings: {wantsAudio: 0, wantsVideo: 1, wantsCaptions: 1, "
            "preferredFramerate: 12.5, preferredResolution: {width: 640 height: 480}}");
}

}  // namespace
