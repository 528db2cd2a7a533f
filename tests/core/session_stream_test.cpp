#include <gmock/gmock.h>

#include <optional>
#include <sstream>

#include "session/mr_stream.h"
#include "session_test_support.h"

using namespace session_test;
using testing::ElementsAre;

namespace {

class StreamTest : public ScriptedTest {};

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
  std::ostringstream out;
  out << moved.getStreamInfo();
  EXPECT_EQ(out.str(),
            "MRStreamInfo: {streamId: stream, connection: MRConnectionInfo: {connectionId: peer, "
            "creationTime: 5, data: data, sessionId: session}}");
}

TEST_F(StreamTest, ReadsWhatTheLibraryLacksAsEmpty) {
  struct Row {
    const char* connection_id;
    const char* data;
    bool valid_connection;
  };
  for (const Row& row : {Row{nullptr, nullptr, false}, Row{"peer", nullptr, true}}) {
    srn_stream* const borrowed =
        scripted_stream_new("stream", row.connection_id, row.data, nullptr, 5);
    const MRStream stream(borrowed);
    srn_stream_delete(borrowed);
    EXPECT_EQ(stream.getStreamInfo().stream_id, "stream");
    EXPECT_EQ(stream.getStreamInfo().connection.isValid(), row.valid_connection);
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
}

TEST_F(StreamTest, SaysWhichConnectionIsMissing) {
  const LogCapture log;
  EXPECT_FALSE(MRConnection(nullptr).getConnectionInfo().isValid());
  EXPECT_FALSE(MRConnection::createConnectionInfo(nullptr).isValid());
  EXPECT_THAT(log.lines(),
              ElementsAre("ERROR MRConnection: Received nullptr pointer to a connection",
                          "ERROR MRConnection::createConnectionInfo: Received nullptr connection"));
}

}  // namespace
