#include "controller/mr_controller.h"

#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <tuple>

#include "core_test.h"

using namespace core_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

std::string printed(const std::optional<BufferStats>& side) {
  return side ? std::to_string(side->duration_millis) : "none";
}

class ControllerTest : public ScriptedTest {
 protected:
  ControllerTest() {
    unsetenv("API_HOSTNAME");
    MRSessionCallbacks callbacks;
    callbacks.on_connected = [this](const std::string& id) { told("connected " + id); };
    callbacks.on_disconnected = [this](const std::string& id) { told("disconnected " + id); };
    callbacks.on_stream_received = [this](const std::string&, const MRStream& stream) {
      told("received " + stream.getStreamInfo().stream_id);
    };
    callbacks.on_stream_dropped = [this](const std::string&, const MRStreamInfo& stream) {
      told("dropped " + stream.stream_id);
    };
    callbacks.on_connection_created = [this](const std::string&, const MRConnectionInfo& info) {
      told("created " + info.connection_id);
    };
    callbacks.on_connection_dropped = [this](const std::string&, const MRConnectionInfo& info) {
      told("gone " + info.connection_id);
    };
    callbacks.on_error = [this](const std::string& id, const std::string& text, int code) {
      told("error " + id + " " + text + " " + std::to_string(code));
    };
    callbacks.on_audio_data = [this](const std::string& id, const MRAudioData&) {
      heard.add("audio " + id);
    };
    callbacks.on_ready_to_publish = [this](const std::string& id) { told("ready " + id); };
    callbacks.on_media_buffer_drained = [this](const MediaBufferStats& stats) {
      told("drained " + printed(stats.audio_stats) + " " + printed(stats.video_stats));
    };
    controller.emplace(callbacks);
  }
  void TearDown() override {
    controller.reset();
    ScriptedTest::TearDown();
  }
  /// Has the test do something from inside the next such event.
  void when(const std::string& line, std::function<void()> react) {
    const std::scoped_lock lock(reactions_mutex);
    reactions[line] = std::move(react);
  }
  void told(const std::string& line) {
    std::function<void()> react;
    {
      const std::scoped_lock lock(reactions_mutex);
      if (auto reaction = reactions.extract(line)) react = std::move(reaction.mapped());
    }
    heard.add(line);
    if (react) react();
  }
  bool connect(const std::string& session_id = "s", const std::string& api_key = "12345") {
    return controller->connect({session_id, "token", api_key, "ignored"}, {});
  }
  void join(const std::string& session_id = "s") {
    ASSERT_TRUE(connect(session_id));
    ASSERT_TRUE(heard.await("connected " + session_id));
  }
  std::string publish(bool has_audio, bool has_video) {
    MRPublisherSettings settings;
    settings.name = "bot";
    settings.has_audio = has_audio;
    settings.has_video = has_video;
    return controller->publish(settings, {});
  }
  /// All that the library has to tell has been told.
  void settle() {
    controller->getCurrentBufferStats();
    ASSERT_EQ(scripted_wait_idle(20000), 1);
    controller->getCurrentBufferStats();
  }

  Journal heard;
  std::mutex reactions_mutex;
  std::map<std::string, std::function<void()>> reactions;
  std::optional<MRController> controller;
};

TEST_F(ControllerTest, ChoosesTheEndpoint) {
  struct Row {
    const char* api_key;
    const char* variable;
    const char* host;  // null: refused
  };
  for (const Row& row : {
           Row{"12345", nullptr, "api.sarnet.localhost"},
           Row{"12345-", nullptr, "relay.tavrin.localhost"},
           Row{"12-345", "host:8443", "host:8443"},
           Row{"12345", "", ""},
           Row{"12345", "http:/x", "http:/x"},
           Row{"12345", "ftp://x", "ftp://x"},
           Row{"12345", "http://", nullptr},
           Row{"12345", "hTTps://X", nullptr},
       }) {
    SCOPED_TRACE(row.variable != nullptr ? row.variable : row.api_key);
    scripted_reset();
    const LogCapture log;
    row.variable != nullptr ? setenv("API_HOSTNAME", row.variable, 1) : unsetenv("API_HOSTNAME");
    EXPECT_EQ(connect("s", row.api_key), row.host != nullptr);
    if (row.host != nullptr) {
      EXPECT_THAT(calls(), Contains(testing::StartsWith(
                               "srn_session_connect_to_host(session=1, host=\"" +
                               std::string(row.host) + "\", path=\"\", port=443, secure=1,")));
    } else {
      EXPECT_STREQ(scripted_calls(), "");
      EXPECT_THAT(log.lines(), ElementsAre("ERROR API_HOSTNAME should not include a protocol "
                                           "(http:// or https://): " +
                                           std::string(row.variable)));
    }
    EXPECT_TRUE(controller->disconnect());
    ASSERT_EQ(scripted_wait_idle(20000), 1);
  }
}

TEST_F(ControllerTest, RefusesAConnectThatCannotSucceedAndTakesTheNext) {
  const LogCapture log;
  for (const MRSessionInfo& info :
       {MRSessionInfo{"", "t", "k", ""}, MRSessionInfo{"s", "", "k", ""},
        MRSessionInfo{"s", "t", "", ""}}) {
    EXPECT_FALSE(controller->connect(info, {}));
  }
  EXPECT_THAT(log.lines(),
              testing::Each("ERROR MRController::connect: Invalid session info provided"));
  scripted_fail("srn_session_new_with_settings", 0, 1);
  EXPECT_FALSE(connect());
  EXPECT_FALSE(controller->isRunning());
  scripted_reset();
  join();
  // A session that runs is left alone, without a word.
  const auto lines = log.lines().size();
  EXPECT_FALSE(connect("other"));
  EXPECT_EQ(log.lines().size(), lines);
  EXPECT_TRUE(controller->isRunning());
  EXPECT_EQ(scripted_call_count("srn_session_new_with_settings"), 1);
}

TEST_F(ControllerTest, TearsDownInOrderWhenAsked) {
  join();
  when("received stream", [this] {
    // The stream is known by the time that it is told of, and the worker may wait for itself.
    EXPECT_EQ(controller->subscribe("stream", {}, {}), "subscriber-1");
  });
  scripted_stream_received("stream", "peer", "", 1);
  EXPECT_EQ(publish(true, true), "publisher-1");
  EXPECT_TRUE(controller->isPublishing());
  ASSERT_TRUE(heard.await("ready s"));
  settle();

  EXPECT_TRUE(controller->disconnect());
  EXPECT_FALSE(controller->isRunning());
  EXPECT_FALSE(controller->isPublishing());
  EXPECT_TRUE(controller->disconnect());
  const std::vector<std::string> order = {"srn_session_unsubscribe", "srn_subscriber_delete",
                                          "srn_session_unpublish",   "srn_publisher_delete",
                                          "srn_session_disconnect",  "srn_session_delete"};
  EXPECT_EQ(callNames(order), order);
  EXPECT_EQ(scripted_live("stream"), 0);
  EXPECT_EQ(scripted_device_slot("is_capturer_started"), 0);
  settle();
  EXPECT_THAT(heard.lines(), Not(Contains("disconnected s")));
}

TEST_F(ControllerTest, TearsDownFirstWhenTheLibraryEndsTheSession) {
  struct Row {
    std::function<int()> end;
    const char* event;
  };
  for (const Row& row :
       {Row{[] { return scripted_session_disconnected(); }, "disconnected s"},
        Row{[] { return scripted_session_error(1022, "cut"); }, "error s cut 1022"}}) {
    scripted_reset();
    join();
    when(row.event, [this] {
      EXPECT_FALSE(controller->isRunning());
      EXPECT_EQ(scripted_live("session"), 0);
    });
    row.end();
    EXPECT_TRUE(heard.await(row.event));
    settle();
    EXPECT_EQ(heard.count(row.event), 1);
    EXPECT_EQ(scripted_call_count("srn_session_disconnect"), 0);
    heard.add("-");
  }
}

TEST_F(ControllerTest, LeavesANewSessionAloneWhenTheOldOneHasMoreToSay) {
  join();
  when("error s cut 1022", [this] { EXPECT_TRUE(connect("next")); });
  Latch queued;
  when("created slow", [&] { EXPECT_TRUE(queued.wait()); });
  // While the worker is held up, a whole series of events of the first session queues up.
  scripted_connection_created("slow", "", 1);
  ASSERT_TRUE(heard.await("created slow"));
  scripted_session_error(1022, "cut");
  scripted_stream_received("stale", "peer", "", 1);
  scripted_session_disconnected();
  EXPECT_EQ(scripted_wait_idle(20000), 1);
  queued.open();
  ASSERT_TRUE(heard.await("disconnected s"));
  ASSERT_TRUE(heard.await("connected next"));
  EXPECT_TRUE(controller->isRunning());
  EXPECT_EQ(scripted_live("session"), 1);
  // The first session's stream is not taken for one of the second.
  EXPECT_EQ(controller->subscribe("stale", {}, {}), "");
  ASSERT_TRUE(heard.await("ready next"));
}

TEST_F(ControllerTest, IsReadyOnlyAfterItIsConnectedAndAgainInTheNextSession) {
  scripted_answer("connected", "none");
  ASSERT_TRUE(connect("one"));
  EXPECT_FALSE(controller->getSessionConnectionInfo().isValid());
  EXPECT_EQ(scripted_device_slot("init_capturer"), 1);
  EXPECT_EQ(scripted_device_slot("start_capturer"), 1);
  settle();
  EXPECT_THAT(heard.lines(), IsEmpty());
  scripted_answer("connected", "normal");
  EXPECT_TRUE(controller->disconnect());
  for (const std::string id : {"two", "three"}) {
    join(id);
    EXPECT_TRUE(heard.await("ready " + id));
    EXPECT_EQ(controller->getSessionConnectionInfo().connection_id, "own-connection");
    EXPECT_TRUE(controller->disconnect());
    EXPECT_EQ(heard.count("ready " + id), 1);
  }
}

TEST_F(ControllerTest, GivesTheLibraryTheFormatsOfTheSession) {
  MRSessionSettings settings;
  settings.audio = {{16000, 1}, {24000, 2}};
  ASSERT_TRUE(controller->connect({"s", "t", "k", ""}, settings));
  ASSERT_TRUE(heard.await("connected s"));
  settle();
  int32_t rate = 0;
  int32_t channels = 0;
  EXPECT_EQ(scripted_device_settings("get_capture_settings", &rate, &channels), 1);
  EXPECT_EQ(rate * 10 + channels, 160001);
  EXPECT_EQ(scripted_device_settings("get_render_settings", &rate, &channels), 1);
  EXPECT_EQ(rate * 10 + channels, 240002);
}

TEST_F(ControllerTest, DeliversTheMixOnlyWhileThereIsASession) {
  join("one");
  ASSERT_TRUE(heard.await("audio one"));
  Latch reached;
  Latch go_on;
  when("created slow", [&] {
    reached.open();
    EXPECT_TRUE(go_on.wait());
    EXPECT_TRUE(controller->disconnect());
    heard.add("torn down");
  });
  scripted_connection_created("slow", "", 1);
  ASSERT_TRUE(reached.wait());
  go_on.open();
  ASSERT_TRUE(heard.await("torn down"));
  const long before = heard.count("audio one");
  join("two");
  ASSERT_TRUE(heard.await("audio two", 3));
  EXPECT_LE(heard.count("audio one"), before + 1);  // one may have been on its way
}

TEST_F(ControllerTest, ReportsTheSideThatHasRunDry) {
  struct Row {
    bool has_audio;
    bool has_video;
    std::string report;
  };
  for (const Row& row : {Row{true, true, "drained 0 0"}, Row{true, false, "drained 0 none"},
                         Row{false, true, "drained none 0"}}) {
    scripted_reset();
    heard.clear();
    join("s");
    ASSERT_TRUE(heard.await("ready s"));
    ASSERT_NE(publish(row.has_audio, row.has_video), "");
    settle();
    long reports = heard.count(row.report);
    if (row.has_audio) {
      const std::vector<int16_t> samples(2 * 480, 1);
      EXPECT_TRUE(controller->addAudio({samples.data(), 48000, 2, 480}));
      EXPECT_TRUE(heard.await(row.report, ++reports));
    }
    if (row.has_video) {
      EXPECT_TRUE(
          controller->addVideo(MRVideoFrame::create(640, 480, MRVideoFrameFormat::YUV420P)));
      EXPECT_TRUE(heard.await(row.report, ++reports));
    }
    EXPECT_TRUE(controller->clearMediaBuffers());
    EXPECT_TRUE(controller->disconnect());
    ASSERT_EQ(scripted_wait_idle(20000), 1);
  }
}

TEST_F(ControllerTest, DoesWhatItCanWithoutASession) {
  const LogCapture log;
  const int16_t sample = 1;
  EXPECT_FALSE(controller->addAudio({&sample, 48000, 1, 1}));
  EXPECT_FALSE(controller->addVideo(MRVideoFrame::create(2, 2, MRVideoFrameFormat::RGB24)));
  EXPECT_FALSE(controller->clearMediaBuffers());
  EXPECT_FALSE(controller->getSessionConnectionInfo().isValid());
  EXPECT_EQ(controller->getCurrentBufferStats(), MediaBufferStats{});
  EXPECT_EQ(publish(true, true), "");
  EXPECT_TRUE(controller->unpublish());
  EXPECT_TRUE(controller->unsubscribe("stream"));
  EXPECT_TRUE(controller->disconnect());
  const std::string kNone = ": Not connected to any session.";
  EXPECT_THAT(
      log.lines(),
      ElementsAre("WARN MRController::addAudio" + kNone, "WARN MRController::addVideo" + kNone,
                  "WARN MRController::clearMediaBuffers" + kNone,
                  "WARN MRController::getSessionConnectionInfo: No session",
                  "INFO MRPublisherManager::publish: settings:MRPublisherSettings: {name: 'bot', "
                  "hasAudio: true, hasVideo: true, stereoAudioMode: true, audioNoiseSuppresion: "
                  "false, audioEchoCancellation: false, audioProcessing: false, audioEnableDTX: "
                  "false, enableCaptions: false}",
                  "ERROR MRPublisherManager::publish: Invalid session"));
}

TEST_F(ControllerTest, SetsBothLogLevels) {
  const LogCapture restores_the_level;
  const std::vector<std::tuple<const char*, const char*, log4cxx::LevelPtr>> rows{
      {"off", "0", log4cxx::Level::getOff()},     {"TRACE", "4", log4cxx::Level::getTrace()},
      {"dEbug", "3", log4cxx::Level::getDebug()}, {"info", "3", log4cxx::Level::getInfo()},
      {"Warn", "2", log4cxx::Level::getWarn()},   {"error", "1", log4cxx::Level::getError()}};
  for (const auto& [word, number, level] : rows) {
    scripted_reset();
    controller->setLogLevel(word);
    for (const char* unknown : {"verbose", "", "warn "}) controller->setLogLevel(unknown);
    EXPECT_EQ(log4cxx::Logger::getRootLogger()->getLevel(), level) << word;
    EXPECT_EQ(scripted_calls(), "srn_log_enable(level=" + std::string(number) + ")");
  }
}

TEST_F(ControllerTest, StaysUsableWhenTheLibraryCannotBeInitialised) {
  controller.reset();
  scripted_reset();
  scripted_fail("srn_init", 1, 1);
  const LogCapture log(log4cxx::Level::getError());
  controller.emplace(MRSessionCallbacks{});
  EXPECT_FALSE(connect());
  EXPECT_FALSE(controller->disconnect());
  EXPECT_THAT(log.lines(),
              ElementsAre("ERROR MRController::initSntLibrary: Sarnet couldn't init the library",
                          "ERROR MRController::connect: MR library not initialised.",
                          "ERROR MRController::disconnect: MR library not initialised."));
  EXPECT_TRUE(MRController::initSntLibrary());
  EXPECT_TRUE(connect());
  controller.reset();
  EXPECT_THAT(callNames({"srn_set_audio_device", "srn_init", "srn_session_delete", "srn_destroy"}),
              ElementsAre("srn_set_audio_device", "srn_init", "srn_init", "srn_session_delete",
                          "srn_destroy"));
}

TEST_F(ControllerTest, RunsWhatIsQueuedBeforeItEndsAndForgetsLateStreams) {
  join();
  Latch queued;
  when("created slow", [&] { EXPECT_TRUE(queued.wait()); });
  scripted_connection_created("slow", "", 1);
  ASSERT_TRUE(heard.await("created slow"));
  std::thread ending([this] { controller.reset(); });
  scripted_stream_received("late", "peer", "", 1);
  EXPECT_EQ(scripted_wait_idle(20000), 1);
  queued.open();
  ending.join();
  EXPECT_EQ(heard.count("received late"), 1);
  const auto names = callNames({"srn_stream_delete", "srn_session_delete", "srn_destroy"});
  EXPECT_EQ(names.back(), "srn_destroy");
}

}  // namespace
