#include <optional>
#include <thread>

#include "lib_test.h"

using namespace lib_test;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string kTimedOut = "ERROR MRSession::~MRSession: Timed out disconnecting from session.";

class SessionTest : public ScriptedTest {
 protected:
  /// With a library and an observer that know nothing of an earlier round.
  std::shared_ptr<MRSession> joinAnew() {
    scripted_reset();
    return join();
  }
  std::shared_ptr<MRSession> join() {
    observer.heard.clear();
    auto session = MRSession::connect(sessionInfo(), {}, &observer);
    EXPECT_TRUE(observer.heard.await("connected the-session"));
    return session;
  }
  RecordingObserver observer;
};

TEST_F(SessionTest, WaitsForTheConfirmationOfItsOwnLeaving) {
  struct Row {
    const char* answer;
    int32_t status;
    int timeout;
  };
  const Row twice{"twice", 0, 5};
  for (const Row& row : {Row{"normal", 0, 5}, Row{"error", 0, 5},
                         // The second word of a library that repeats itself must do no harm.
                         twice, twice, Row{"error_then_normal", 0, 5}, Row{"none", 0, 0},
                         Row{"none", 1010, 0}, Row{"none", 1015, 0}}) {
    SCOPED_TRACE(row.answer + std::to_string(row.status));
    auto session = joinAnew();
    scripted_answer("disconnected", row.answer);
    scripted_fail("srn_session_disconnect", row.status, row.status != 0 ? 1 : 0);
    session->setDisconnectTimeout(std::chrono::seconds(row.timeout));
    const LogCapture log;
    session.reset();
    ASSERT_EQ(scripted_wait_idle(20000), 1);
    EXPECT_EQ(log.count(kTimedOut), row.timeout == 0 ? 1 : 0);
    // 1010 says that it had left already, which is no failure.
    EXPECT_EQ(log.count("ERROR MRSession::disconnect: "), row.status == 1015 ? 1 : 0);
    EXPECT_THAT(log.lines(), Each(Not(HasSubstr("xception in callback"))));
    // A leaving that was asked for is nothing to tell.
    EXPECT_THAT(observer.heard.lines(), ElementsAre("connected the-session"));
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

TEST_F(StreamTest, IsEmptyForNothingAndForACopyThatFails) {
  srn_stream* const borrowed = scripted_stream_new("stream", "peer", "", "", 5);
  const MRStream none(nullptr);
  scripted_fail("srn_stream_copy", 0, 1);
  const MRStream uncopied(borrowed);
  srn_stream_delete(borrowed);
  for (const MRStream* stream : {&none, &uncopied}) {
    const MRStream copy(*stream);
    EXPECT_FALSE(copy.getStreamInfo().isValid());
    EXPECT_EQ(copy.getStream(), nullptr);
  }
  EXPECT_FALSE(MRConnection(nullptr).getConnectionInfo().isValid());
}

}  // namespace
