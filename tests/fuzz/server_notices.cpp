// What a server says, a message a line: the shapes of its answers, and the account of who is in the
// room.
#include <cstddef>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>

#include "relay/room/relay_room.h"
#include "relay/signalling/janus_reply.h"

namespace {

using sarnet::relay::json;

// Holds the room to its promise: each change once, streams only of those who are there.
class Ledger final : public sarnet::relay::RoomObserver {
 public:
  void participant_joined(const sarnet::ConnectionInfo& participant) override {
    require(participants_.insert(participant.id).second);
  }
  void participant_left(const sarnet::ConnectionInfo& participant) override {
    require(participants_.erase(participant.id) == 1);
  }
  void stream_added(const sarnet::StreamInfo& stream) override {
    require(participants_.contains(stream.connection.id) && streams_.insert(stream.id).second);
  }
  void stream_removed(const sarnet::StreamInfo& stream) override {
    require(streams_.erase(stream.id) == 1);
  }

 private:
  static void require(bool holds) {
    if (!holds) __builtin_trap();
  }

  std::set<std::string> participants_;
  std::set<std::string> streams_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Ledger ledger;
  sarnet::relay::RelayRoom room("a-session", "own", ledger);
  std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
  for (std::string line; std::getline(lines, line);) {
    const json message = sarnet::relay::parse_message(line);
    if (message.is_null()) continue;
    const sarnet::relay::JanusReply reply = sarnet::relay::make_reply(message, {.room = "joined"});
    reply.sdp();
    room.take(reply.data());
    if (reply.data().contains("participants")) room.resynchronise(reply.data()["participants"]);
  }
  return 0;
}
