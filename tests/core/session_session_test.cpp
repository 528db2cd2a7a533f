#include <gmock/gmock.h>

#include <sstream>
#include <thread>

#include "session_test_support.h"

using namespace session_test;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

const std::string kTimedOut = "ERROR MRSession::~MRSession: Timed out disconnecting from session.";

class SessionTest : public ScriptedTest {
 protected:
  std::shared_ptr<MRSession> connect(const MRSessionSettings& settings = {}) {
    return MRSession::connect(sessionInfo(), settings, &observer);
  }
  std::shared_ptr<MRSession> joined() {
    auto session = connect();
    EXPECT_TRUE(observer.heard.waitFor("connected the-session"));
    return session;
  }
  RecordingObserver observer;
};

TEST_F(SessionTest, ConnectsInTheContractsOrder) {
  MRSessionSettings settings;
  settings.enable_migration = true;
  auto session = connect(settings);
  ASSERT_NE(session, nullptr);
  auto calls = split(scripted_calls());
  calls.resize(4);
  EXPECT_THAT(
      calls,
      ElementsAre(
          "srn_session_settings_new()",
          "srn_session_settings_set_session_migration(settings=1, enabled=1)",
          "srn_session_new_with_settings(api_key=\"12345\", session_id=\"the-session\", "
          "callbacks=[on_connected on_disconnected on_connection_created on_connection_dropped "
          "on_stream_received on_stream_dropped on_error user_data], settings=1)",
          "srn_session_connect_to_host(session=1, host=\"the-host\", path=\"\", port=443, "
          "secure=1, token=\"the-token\")"));
  EXPECT_EQ(session->getSessionId(), "the-session");
  EXPECT_TRUE(session->getSessionSettings().enable_migration);
}

TEST_F(SessionTest, RefusesIncompleteInformationWithoutACall) {
  const std::string kInfo =
      "ERROR MRSession::connect: Invalid/incomplete session information. info:";
  const std::string kVideo =
      "ERROR MRSession::connect: Invalid video publisher settings. settings.video_publisher:";
  struct Row {
    MRSessionInfo info;
    MRVideoSettings video;
    std::string line;
  };
  const MRVideoSettings good{640, 480, 30, MRVideoFrameFormat::YUV420P};
  const MRVideoSettings flat{640, 0, 30, MRVideoFrameFormat::YUV420P};
  const std::vector<Row> rows{
      {{"", "t", "k", "h"},
       good,
       kInfo + "MRSessionInfo: {sessionId: , token: t, apiKey: k, apiHostname: h}"},
      {{"s", "", "k", "h"},
       good,
       kInfo + "MRSessionInfo: {sessionId: s, token: , apiKey: k, apiHostname: h}"},
      {{"s", "t", "", "h"},
       good,
       kInfo + "MRSessionInfo: {sessionId: s, token: t, apiKey: , apiHostname: h}"},
      {{"s", "t", "k", ""},
       flat,
       kVideo + "MRVideoSettings: {width: 640, height: 0, fps: 30, format: YUV420P}"},
  };
  for (const Row& row : rows) {
    const LogCapture log;
    MRSessionSettings settings;
    settings.video_publisher = row.video;
    EXPECT_EQ(MRSession::connect(row.info, settings, &observer), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(row.line));
  }
  EXPECT_THAT(callNames(), IsEmpty());
}

TEST_F(SessionTest, LeavesNothingBehindWhenTheLibraryRefuses) {
  scripted_fail("srn_session_connect_to_host", 1006, 1);
  const LogCapture log(log4cxx::Level::getDebug());
  EXPECT_EQ(connect(), nullptr);
  EXPECT_THAT(
      callNames({"srn_session_connect_to_host", "srn_session_disconnect", "srn_session_delete"}),
      ElementsAre("srn_session_connect_to_host", "srn_session_disconnect", "srn_session_delete"));
  EXPECT_EQ(log.count("ERROR MRSession::connect: Failed to connect to the session. status:1006"),
            1);
  EXPECT_EQ(log.count("DEBUG MRSession::disconnect: session_id:"), 1);
  EXPECT_EQ(log.count(kTimedOut), 1);
}

TEST_F(SessionTest, TellsTheObserverOfEachEventWithTheSessionsId) {
  auto session = joined();
  scripted_connection_created("peer", "its data", 17);
  scripted_connection_created_null();
  scripted_stream_received("stream", "peer", "its data", 17);
  scripted_stream_dropped("stream", "peer", "its data", 17);
  scripted_connection_dropped("peer", nullptr, 17);
  scripted_connection_dropped_null();
  scripted_session_error(2000, nullptr);
  ASSERT_EQ(scripted_wait_idle(20000), 1);
  EXPECT_THAT(observer.heard.lines(),
              ElementsAre("connected the-session", "created the-session peer",
                          "received the-session stream", "dropped the-session stream peer",
                          "gone the-session peer", "error the-session  2000"));
}

TEST_F(SessionTest, KeepsItsOwnConnection) {
  struct Row {
    const char* data;
    bool refused;
    std::string connection_id;
  };
  for (const Row& row : {Row{"mine", false, "me"}, Row{nullptr, false, "me"}, Row{"", true, ""}}) {
    scripted_reset();
    const LogCapture log;
    scripted_own_connection("me", row.data, "the-session", 1234);
    scripted_fail("srn_session_get_connection", 0, row.refused ? 1 : 0);
    RecordingObserver hears;
    auto session = MRSession::connect(sessionInfo(), {}, &hears);
    ASSERT_TRUE(hears.heard.waitFor("connected the-session"));
    const MRConnectionInfo own = session->getSessionConnectionInfo();
    EXPECT_EQ(own.connection_id, row.connection_id);
    EXPECT_EQ(own.data, row.refused || row.data == nullptr ? "" : row.data);
    EXPECT_EQ(own.creation_time, row.refused ? 0 : 1234);
    EXPECT_EQ(
        log.count("WARN MRSession::onSessionConnected: Could not retrieve session connection"),
        row.refused ? 1 : 0);
    session.reset();
    ASSERT_EQ(scripted_wait_idle(20000), 1);
  }
}

TEST_F(SessionTest, WaitsForTheConfirmationOfItsOwnLeaving) {
  const std::string kDisconnected =
      "INFO MRSession::onSessionDisconnected: Session has been destroyed successfully. set "
      "disconnect promise to true";
  const std::string kFailed =
      "INFO MRSession::onSessionError: Session has been disconnected with error. set disconnect "
      "promise to true";
  struct Row {
    const char* answer;
    int32_t status;
    int timeout;
    std::string first_line;
  };
  for (const Row& row :
       {Row{"normal", 0, 5, kDisconnected}, Row{"error", 0, 5, kFailed},
        // The second word of a library that repeats itself must do no harm.
        Row{"twice", 0, 5, kDisconnected}, Row{"twice", 0, 5, kDisconnected},
        Row{"error_then_normal", 0, 5, kFailed}, Row{"error_then_normal", 0, 5, kFailed},
        Row{"none", 0, 0, kTimedOut}, Row{"none", 1010, 0, kTimedOut},
        Row{"none", 1015, 0,
            "ERROR MRSession::disconnect: Failed to disconnect from the session. "
            "status:1015"}}) {
    SCOPED_TRACE(row.answer + std::to_string(row.status));
    scripted_reset();
    RecordingObserver hears;
    auto session = MRSession::connect(sessionInfo(), {}, &hears);
    ASSERT_TRUE(hears.heard.waitFor("connected the-session"));
    scripted_answer("disconnected", row.answer);
    scripted_fail("srn_session_disconnect", row.status, row.status != 0 ? 1 : 0);
    session->setDisconnectTimeout(std::chrono::seconds(row.timeout));
    const LogCapture log;
    session.reset();
    ASSERT_EQ(scripted_wait_idle(20000), 1);
    std::vector<std::string> lines = log.lines();
    std::erase(lines, "ERROR MRSession::onSessionError: code:2000, description:scripted error");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), row.first_line);
    EXPECT_EQ(log.count(kTimedOut), row.timeout == 0 ? 1 : 0);
    EXPECT_THAT(lines, Each(Not(HasSubstr("xception in callback"))));
    // A leaving that was asked for is nothing to tell.
    EXPECT_THAT(hears.heard.lines(), ElementsAre("connected the-session"));
  }
}

TEST_F(SessionTest, LeavesASessionThatTheLibraryEndedWithoutAWord) {
  for (const bool by_error : {false, true}) {
    scripted_reset();
    RecordingObserver hears;
    auto session = MRSession::connect(sessionInfo(), {}, &hears);
    ASSERT_TRUE(hears.heard.waitFor("connected the-session"));
    by_error ? scripted_session_error(1022, "dropped") : scripted_session_disconnected();
    ASSERT_TRUE(hears.heard.waitFor(by_error ? "error the-session dropped 1022"
                                             : "disconnected the-session"));
    const LogCapture log;
    session.reset();
    EXPECT_EQ(scripted_call_count("srn_session_disconnect"), 0);
    EXPECT_EQ(scripted_call_count("srn_session_delete"), 1);
    EXPECT_THAT(log.lines(), IsEmpty());
  }
}

TEST_F(SessionTest, SurvivesCallbacksThatComeAfterItsEnd) {
  scripted_rogue(1);
  auto session = joined();
  scripted_answer("disconnected", "none");
  session->setDisconnectTimeout(std::chrono::seconds(0));
  session.reset();
  scripted_choose_session(1);
  scripted_stream_received("late", "peer", "", 1);
  scripted_session_connected();
  scripted_session_error(2000, "late");
  scripted_session_disconnected();
  ASSERT_EQ(scripted_wait_idle(20000), 1);
  EXPECT_THAT(observer.heard.lines(), ElementsAre("connected the-session"));
}

TEST_F(SessionTest, DoesNotEndUnderAnEventThatIsBeingTold) {
  // The observer's thread is the library's: the session must stay until it has come back.
  class SlowObserver final : public MRSessionObserver {
   public:
    void onSessionConnected(const std::string&) override {}
    void onSessionDisconnected(const std::string&) override {}
    void onSessionError(const std::string& id, const std::string&, int) override {
      inside.open();
      EXPECT_TRUE(go_on.wait());
      told.add("error " + id);
    }
    void onStreamReceived(const std::string&, const MRStream&) override {}
    void onStreamDropped(const std::string&, const MRStreamInfo&) override {}
    void onConnectionCreated(const std::string&, const MRConnection&) override {}
    void onConnectionDropped(const std::string&, const MRConnection&) override {}
    void onSessionMediaBufferDrained(const MediaBufferStats&) override {}
    Latch inside;
    Latch go_on;
    Journal told;
  } slow;
  auto session = MRSession::connect(sessionInfo(), {}, &slow);
  scripted_session_error(2000, "the end");
  ASSERT_TRUE(slow.inside.wait());
  std::thread ending([&] {
    session.reset();
    slow.told.add("ended");
  });
  slow.go_on.open();
  ending.join();
  EXPECT_THAT(slow.told.lines(), ElementsAre("error the-session", "ended"));
}

TEST(SessionRecords, PrintThemselves) {
  std::ostringstream out;
  out << MRSessionSettings{};
  EXPECT_EQ(
      out.str(),
      "MRSessionSettings: {enableMigration:0, videoInput:MRVideoSettings: {width: 640, height: "
      "480, fps: 30, format: YUV420P}, audioDeviceSettings:MRAudioDeviceSettings: {publisher: "
      "MRAudioSettings: {sampleRate: 48000, numChannels: 2}, subscriber: MRAudioSettings: "
      "{sampleRate: 48000, numChannels: 2}}}");
}

}  // namespace
