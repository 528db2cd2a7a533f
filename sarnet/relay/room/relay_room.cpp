#include "relay/room/relay_room.h"

#include <chrono>
#include <set>
#include <utility>

#include "base/epoch.h"
#include "base/log.h"
#include "relay/signalling/wire_limits.h"

namespace sarnet::relay {
RelayRoom::RelayRoom(std::string session_id, std::string own_id, RoomObserver& observer)
    : session_id_(std::move(session_id)), own_id_(std::move(own_id)), observer_(observer) {}

void RelayRoom::take(const json& data) {
  if (const json& one = member(data, "joining"); one.is_object()) enter(one);
  enter_owners(list_of(data, "attendees"));
  enter_owners(list_of(data, "publishers"));
  for (const json& each : list_of(data, "attendees")) enter(each);
  for (const json& each : list_of(data, "publishers")) publishes(each);
  if (const auto found = members_.find(text_of(data, "unpublished")); found != members_.end()) {
    remove_stream(found->second);
  }
  leave(text_of(data, "leaving"));
  leave(text_of(data, "kicked"));
}

void RelayRoom::resynchronise(const json& participants) {
  std::set<std::string> present;
  for (const json& each : participants) present.insert(text_id_of(each, "id"));
  std::vector<std::string> gone;
  for (const auto& [id, unused] : members_) {
    if (!present.contains(id)) gone.push_back(id);
  }
  for (const std::string& id : gone) leave(id);
  enter_owners(participants);
  for (const json& each : participants) {
    enter(each);
    if (flag_of(each, "publisher")) {
      publishes(each);
    } else if (const auto found = members_.find(text_id_of(each, "id")); found != members_.end()) {
      remove_stream(found->second);
    }
  }
}

bool RelayRoom::has_stream(const std::string& id) const {
  const auto found = members_.find(id);
  return found != members_.end() && found->second.publishing;
}

// A further stream's owner may follow it in the list, or be in the other one.
void RelayRoom::enter_owners(const json& participants) {
  for (const json& each : participants) {
    if (parse_display(text_of(each, "display")).owner.empty()) enter(each);
  }
}

RelayRoom::Member* RelayRoom::enter(const json& participant) {
  const std::string id = text_id_of(participant, "id");
  const Display display = parse_display(text_of(participant, "display"));
  if (id.empty() || id == own_id_ || display.owner == own_id_) return nullptr;
  if (members_.size() >= kMaxMembers && !members_.contains(id)) {
    if (!std::exchange(is_full_, true)) {
      SARNET_LOG(kWarn, "There are more participants than can be told of; some are left out");
    }
    return nullptr;
  }
  const auto [place, is_new] = members_.try_emplace(id);
  Member& member = place->second;
  member.display = display;
  if (!is_new) return &member;
  if (const auto owner = members_.find(display.owner); owner != members_.end()) {
    member.connection = owner->second.connection;
    member.is_connection = false;
    return &member;
  }
  member.connection = {id, display.data, session_id_,
                       display.joined_ms > 0 ? display.joined_ms : epoch_ms()};
  observer_.participant_joined(member.connection);
  return &member;
}

void RelayRoom::publishes(const json& participant) {
  Member* const member = enter(participant);
  if (member != nullptr && !member->publishing) add_stream(*member, text_id_of(participant, "id"));
}

void RelayRoom::add_stream(Member& member, const std::string& id) {
  member.publishing = true;
  member.stream = {id, member.display.stream, member.connection};
  observer_.stream_added(member.stream);
}

void RelayRoom::remove_stream(Member& member) {
  if (std::exchange(member.publishing, false)) observer_.stream_removed(member.stream);
}

void RelayRoom::leave(const std::string& id) {
  const auto found = members_.find(id);
  if (found == members_.end()) return;
  const Member gone = std::move(found->second);
  members_.erase(found);
  if (gone.publishing) observer_.stream_removed(gone.stream);
  if (!gone.is_connection) return;
  // Its further streams end with it, in any order of the notices.
  for (auto& [unused, member] : members_) {
    if (member.connection.id == id) remove_stream(member);
  }
  observer_.participant_left(gone.connection);
}

}  // namespace sarnet::relay
