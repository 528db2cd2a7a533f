#pragma once

#include <string>
#include <string_view>

namespace sarnet::relay {

// A STUN or TURN server.
struct IceServer {
  enum class Kind { kUnknown, kStun, kTurn };
  Kind kind = Kind::kUnknown;
  std::string uri;
};

// Reads "stun:host[:port]" and "turn:user:password@host[:port][?transport=tcp]".
// A user name may hold a colon when it is written %3A.
IceServer parse_ice_server(std::string_view text);

}  // namespace sarnet::relay
