#pragma once

#include <map>
#include <string>

#include "base/engine.h"
#include "relay/room/room_member.h"

namespace sarnet::relay {

// Notified once of each change among the other participants: of a participant before its streams,
// and of the end of its streams before its own.
class RoomObserver {
 public:
  virtual ~RoomObserver() = default;
  virtual void participant_joined(const ConnectionInfo& participant) = 0;
  virtual void participant_left(const ConnectionInfo& participant) = 0;
  virtual void stream_added(const StreamInfo& stream) = 0;
  virtual void stream_removed(const StreamInfo& stream) = 0;
};

// Who is in the room and publishes, from the server's notices: duplicates change nothing, and
// missing steps are filled in. A stream has the id of the participation that publishes it.
// Participations beyond kMaxMembers are ignored.
class RelayRoom {
 public:
  // The observer must outlive it.
  RelayRoom(std::string session_id, std::string own_id, RoomObserver& observer);

  // Lists of those present, in the reply to our joining or in a notice, and those who joined, left
  // or stopped publishing.
  void take(const json& data);
  // The full list of participants: makes up for notices that were lost.
  void resynchronise(const json& participants);

  bool has_stream(const std::string& id) const;

 private:
  struct Member {
    ConnectionInfo connection;  // its owner's, for a further stream
    Display display;
    bool is_connection = true;
    bool publishing = false;
    StreamInfo stream;
  };
  using Members = std::map<std::string, Member>;

  void enter_owners(const json& participants);
  // Null for ourselves, for our further streams and for entries without an id.
  Member* enter(const json& participant);
  void publishes(const json& participant);
  void add_stream(Member& member, const std::string& id);
  void remove_stream(Member& member);
  void leave(const std::string& id);

  const std::string session_id_;
  const std::string own_id_;
  RoomObserver& observer_;
  Members members_;
  bool is_full_ = false;
};

}  // namespace sarnet::relay
