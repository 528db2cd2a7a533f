#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sarnet::relay {

// A STUN or TURN server in parts.
struct IceEndpoint {
  bool is_relay = false;
  bool over_tcp = false;
  std::string host;  // a name or an address, IPv6 without brackets
  unsigned port = 3478;
  std::string user;  // of a relay
  std::string password;
};

// Reads "stun:host[:port]" and "turn:user:password@host[:port][?transport=tcp]". A user name may
// hold a colon when it is written %3A.
std::optional<IceEndpoint> parse_ice_endpoint(std::string_view text);

}  // namespace sarnet::relay
