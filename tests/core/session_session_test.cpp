#include <optional>
#include <sstream>
#include <thread>

#include "core_test.h"
#include "session/mr_publisher.h"
#include "session/mr_subscriber.h"

using namespace core_test;
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
  /// With a library and an observer that know nothing of an earlier round.
  std::shared_ptr<MRSession> joinAnew() {
    scripted_reset();
    return join();
  }
  std::shared_ptr<MRSession> join() {
    observer.heard.clear();
    auto session = connect();
    EXPECT_TRUE(observer.heard.await("connected the-session"));
    return session;
  }
  RecordingObserver observer;
};

TEST_F(SessionTest, ConnectsInTheContractsOrder) {
  MRSessionSettings settings;
  settings.enable_migration = true;
  auto session = connect(settings);
  ASSERT_NE(session, nullptr);
  EXPECT_TRUE(("\n" + std::string(scripted_calls())).starts_with(R"(
srn_session_settings_new()
srn_session_settings_set_session_migration(settings=1, enabled=1)
srn_session_new_with_settings(api_key="12345", session_id="the-session", callbacks=[on_connected on_disconnected on_connection_created on_connection_dropped on_stream_received on_stream_dropped on_error user_data], settings=1)
srn_session_connect_to_host(session=1, host="the-host", path="", port=443, secure=1, token="the-token"))"))
      << scripted_calls();
  EXPECT_EQ(session->getSessionId(), "the-session");
  EXPECT_TRUE(session->getSessionSettings().enable_migration);
}

TEST_F(SessionTest, RefusesIncompleteInformationWithoutACall) {
  const std::string kInfo = "Invalid/incomplete session information. info:MRSessionInfo: {";
  struct Row {
    MRSessionInfo info;
    int height;
    std::string line;
  };
  const std::vector<Row> rows{
      {{"", "t", "k", "h"}, 480, kInfo + "sessionId: , token: t, apiKey: k, apiHostname: h}"},
      {{"s", "", "k", "h"}, 480, kInfo + "sessionId: s, token: , apiKey: k, apiHostname: h}"},
      {{"s", "t", "", "h"}, 480, kInfo + "sessionId: s, token: t, apiKey: , apiHostname: h}"},
      {{"s", "t", "k", ""},
       0,
       "Invalid video publisher settings. settings.video_publisher:MRVideoSettings: {width: 640, "
       "height: 0, fps: 30, format: YUV420P}"},
  };
  for (const Row& row : rows) {
    const LogCapture log;
    MRSessionSettings settings;
    settings.video_publisher = {640, row.height, 30, MRVideoFrameFormat::YUV420P};
    EXPECT_EQ(MRSession::connect(row.info, settings, &observer), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre("ERROR MRSession::connect: " + row.line));
  }
  EXPECT_STREQ(scripted_calls(), "");
}

TEST_F(SessionTest, LeavesNothingBehindWhenTheLibraryRefuses) {
  scripted_fail("srn_session_connect_to_host", 1006, 1);
  const LogCapture log;
  EXPECT_EQ(connect(), nullptr);
  EXPECT_THAT(
      callNames({"srn_session_connect_to_host", "srn_session_disconnect", "srn_session_delete"}),
      ElementsAre("srn_session_connect_to_host", "srn_session_disconnect", "srn_session_delete"));
  EXPECT_EQ(log.count("ERROR MRSession::connect: Failed to connect to the session. status:1006"),
            1);
  EXPECT_EQ(log.count(kTimedOut), 1);
}

TEST_F(SessionTest, TellsTheObserverOfEachEventWithTheSessionsId) {
  auto session = join();
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
  for (const bool refused : {false, true}) {
    scripted_reset();
    const LogCapture log;
    scripted_own_connection("me", "mine", "the-session", 1234);
    scripted_fail("srn_session_get_connection", 0, refused ? 1 : 0);
    auto session = join();
    const MRConnectionInfo own = session->getSessionConnectionInfo();
    EXPECT_EQ(own.connection_id, refused ? "" : "me");
    EXPECT_EQ(own.data, refused ? "" : "mine");
    EXPECT_EQ(own.creation_time, refused ? 0 : 1234);
    EXPECT_EQ(
        log.count("WARN MRSession::onSessionConnected: Could not retrieve session connection"),
        refused ? 1 : 0);
    session.reset();
    ASSERT_EQ(scripted_wait_idle(20000), 1);
  }
}

TEST_F(SessionTest, WaitsForTheConfirmationOfItsOwnLeaving) {
  const std::string kPromise = "set disconnect promise to true";
  const std::string kDisconnected =
      "INFO MRSession::onSessionDisconnected: Session has been destroyed successfully. " + kPromise;
  const std::string kFailed =
      "INFO MRSession::onSessionError: Session has been disconnected with error. " + kPromise;
  struct Row {
    const char* answer;
    int32_t status;
    int timeout;
    std::string first_line;
  };
  const Row twice{"twice", 0, 5, kDisconnected};
  for (const Row& row : {Row{"normal", 0, 5, kDisconnected}, Row{"error", 0, 5, kFailed},
                         // The second word of a library that repeats itself must do no harm.
                         twice, twice, Row{"error_then_normal", 0, 5, kFailed},
                         Row{"none", 0, 0, kTimedOut}, Row{"none", 1010, 0, kTimedOut},
                         Row{"none", 1015, 0,
                             "ERROR MRSession::disconnect: Failed to disconnect from the session. "
                             "status:1015"}}) {
    SCOPED_TRACE(row.answer + std::to_string(row.status));
    auto session = joinAnew();
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
    EXPECT_THAT(observer.heard.lines(), ElementsAre("connected the-session"));
  }
}

TEST_F(SessionTest, LeavesASessionThatTheLibraryEndedWithoutAWord) {
  for (const bool by_error : {false, true}) {
    auto session = joinAnew();
    by_error ? scripted_session_error(1022, "dropped") : scripted_session_disconnected();
    ASSERT_TRUE(observer.heard.await(by_error ? "error the-session dropped 1022"
                                              : "disconnected the-session"));
    // The callback may still have a line to write.
    ASSERT_EQ(scripted_wait_idle(20000), 1);
    const LogCapture log;
    session.reset();
    EXPECT_EQ(scripted_call_count("srn_session_disconnect"), 0);
    EXPECT_EQ(scripted_call_count("srn_session_delete"), 1);
    EXPECT_THAT(log.lines(), IsEmpty());
  }
}

TEST_F(SessionTest, SurvivesCallbacksThatComeAfterItsEnd) {
  scripted_rogue(1);
  auto session = join();
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
  Latch inside;
  Latch go_on;
  observer.before_error = [&] {
    inside.open();
    EXPECT_TRUE(go_on.wait());
  };
  auto session = join();
  scripted_session_error(2000, "the end");
  ASSERT_TRUE(inside.wait());
  std::thread ending([&] {
    session.reset();
    observer.heard.add("ended");
  });
  go_on.open();
  ending.join();
  EXPECT_THAT(observer.heard.lines(),
              ElementsAre("connected the-session", "error the-session the end 2000", "ended"));
}

using StreamTest = ScriptedTest;

TEST_F(StreamTest, OutlivesWhatItWasCopiedFrom) {
  srn_stream* const borrowed = scripted_stream_new("stream", "peer", "data", "session", 5);
  std::optional<MRStream> first(borrowed);
  srn_stream_delete(borrowed);
  const MRStream copy(*first);
  EXPECT_NE(copy.getStream(), first->getStream());
  const MRStream moved(std::move(*first));
  first.reset();
  EXPECT_EQ(scripted_live("stream"), 2);
  EXPECT_STREQ(srn_stream_get_id(copy.getStream()), "stream");
  EXPECT_EQ(moved.getStreamInfo().connection.data, "data");
}

TEST_F(StreamTest, ReadsWhatTheLibraryLacksAsEmpty) {
  for (const char* connection_id : {static_cast<const char*>(nullptr), "peer"}) {
    srn_stream* const borrowed = scripted_stream_new("stream", connection_id, nullptr, nullptr, 5);
    const MRStream stream(borrowed);
    srn_stream_delete(borrowed);
    EXPECT_EQ(stream.getStreamInfo().stream_id, "stream");
    EXPECT_EQ(stream.getStreamInfo().connection.isValid(), connection_id != nullptr);
    EXPECT_EQ(stream.getStreamInfo().connection.data, "");
    EXPECT_EQ(stream.getStreamInfo().connection.session_id, "");
  }
}

TEST_F(StreamTest, IsEmptyForNothingAndForACopyThatFails) {
  srn_stream* const borrowed = scripted_stream_new("stream", "peer", "", "", 5);
  const LogCapture log;
  const MRStream none(nullptr);
  scripted_fail("srn_stream_copy", 0, 1);
  const MRStream uncopied(borrowed);
  srn_stream_delete(borrowed);
  for (const MRStream* stream : {&none, &uncopied}) {
    const MRStream copy(*stream);
    EXPECT_FALSE(copy.getStreamInfo().isValid());
    EXPECT_EQ(copy.getStream(), nullptr);
  }
  EXPECT_EQ(log.count("ERROR MRStream: Recieved nullptr pointer to a stream"), 3);
  EXPECT_FALSE(MRConnection(nullptr).getConnectionInfo().isValid());
  EXPECT_EQ(log.count("ERROR MRConnection: Received nullptr pointer to a connection"), 1);
}

TEST(Records, PrintThemselves) {
  std::ostringstream out;
  out << MRSessionSettings{} << '\n'
      << MRPublisherInfo{"id", "s"} << '\n'
      << MRSubscriberInfo{"id", "stream", "session"} << '\n'
      << MRSubscriberSettings{} << '\n'
      << MRSubscriberSettings{false, true, true, 12.5F, Resolution{640, 480}} << '\n';
  EXPECT_EQ("\n" + out.str(), R"(
MRSessionSettings: {enableMigration:0, videoInput:MRVideoSettings: {width: 640, height: 480, fps: 30, format: YUV420P}, audioDeviceSettings:MRAudioDeviceSettings: {publisher: MRAudioSettings: {sampleRate: 48000, numChannels: 2}, subscriber: MRAudioSettings: {sampleRate: 48000, numChannels: 2}}}
MRPublisherInfo: {publisherId: id, sessionId: s}
MRSubscriberInfo: {subscriberId: id, sessionId: session, publisherStreamId: stream}
MRSubscriberSettings: {wantsAudio: 1, wantsVideo: 1, wantsCaptions: 0}
MRSubscriberSettings: {wantsAudio: 0, wantsVideo: 1, wantsCaptions: 1, preferredFramerate: 12.5, preferredResolution: {width: 640 height: 480}}
)");
}

}  // namespace
