#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace sarnet::relay {

using nlohmann::json;

// The server's error numbers that we tell apart.
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
    kRefused,   // `error` and `text` are the server's
    kTimedOut,  // no answer within the limit
    kLost,      // the connection was lost for good
  };
  Outcome outcome = Outcome::kOk;
  int error = 0;
  std::string text;
  json message;  // the whole answer

  bool ok() const { return outcome == Outcome::kOk; }
  // What the plug-in of the server said; an empty object when it said nothing.
  const json& data() const;
  // The session description that came along, or an empty text.
  std::string sdp() const;
};

JanusReply make_reply(json message);

// Members of a message that may come in any shape: a default where there is none of that type.
const json& member(const json& object, const char* name);
std::string text_of(const json& object, const char* name);
std::int64_t number_of(const json& object, const char* name);
bool flag_of(const json& object, const char* name);
// What the plug-in said in a message, and the session description that came along.
const json& plugin_data(const json& message);
std::string sdp_of(const json& message);

}  // namespace sarnet::relay
