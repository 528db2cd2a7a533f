#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace sarnet::relay {

using nlohmann::json;

// The server's error numbers that we distinguish.
struct JanusError {
  static constexpr int kUnauthorized = 403;
  static constexpr int kUnauthorizedPlugin = 405;
  static constexpr int kNoSuchRoom = 426;
  static constexpr int kRoomExists = 427;
  static constexpr int kNoSuchFeed = 428;
  static constexpr int kMissingElement = 429;
  static constexpr int kUnauthorizedInRoom = 433;
};

// How a request ended.
// NOLINTNEXTLINE(bugprone-exception-escape): json declares its move constructor safe
struct JanusReply {
  enum class Outcome {
    kOk,
    kRefused,    // `error` and `text` are the server's
    kMalformed,  // `text` says what the reply lacks
    kTimedOut,   // no answer within the limit
  };
  Outcome outcome = Outcome::kOk;
  int error = 0;
  std::string text;
  json message;  // the whole answer

  bool ok() const { return outcome == Outcome::kOk; }
  // The data of the server's plug-in; an empty object when there are none.
  const json& data() const;
  // The session description of the message, or an empty text.
  std::string sdp() const;
};

// What a reply must hold to match its request.
struct Expected {
  bool id = false;             // of what was made
  const char* room = nullptr;  // how the room's plug-in calls it: "joined"
  bool sdp = false;            // a session description
  const char* list = nullptr;  // a list of that name in the plug-in's data
};

JanusReply make_reply(json message, const Expected& expected);

// The message in that text; null when there is none, or it is nested too deep.
json parse_message(std::string_view text);

// Members of an untrusted message: a default unless there is one of that type. Numbers are
// integers; beyond 64 bits they count as missing.
const json& member(const json& object, const char* name);
std::string text_of(const json& object, const char* name);
std::int64_t number_of(const json& object, const char* name);
// The id of a session, a handle or a room's participation; 0 or empty when none is valid.
std::uint64_t id_of(const json& object, const char* name);
std::string text_id_of(const json& object, const char* name);
// Empty unless it is a list.
const json& list_of(const json& object, const char* name);
bool flag_of(const json& object, const char* name);
// The plug-in's data in a message, and its session description.
const json& plugin_data(const json& message);
std::string sdp_of(const json& message);
// Why the server's description is rejected; empty when it is accepted.
std::string description_fault(std::string_view sdp);

}  // namespace sarnet::relay
