#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/engine.h"
#include "base/host_address.h"

namespace sarnet::relay {

// The engine's environment variables, read anew for each session:
//   SARNET_RELAY_CA_FILE      certificate authorities (PEM) to trust instead of the system's
//   SARNET_RELAY_ADMIN_KEY    the server's key for making rooms
//   SARNET_RELAY_LOOPBACK     1: media may use 127.0.0.1, as with a server at that address
//   SARNET_RELAY_JITTER_MS    how long received packets may wait for missing earlier ones
//   SARNET_RELAY_ICE_SERVERS  STUN and TURN servers, with commas between
struct RelaySettings {
  std::string url;
  std::string ca_file;
  std::string admin_key;
  bool loopback = false;
  // Long enough for what was lost on its way to the server, which asks a second time after 155 ms.
  unsigned jitter_ms = 300;
  std::vector<std::string> ice_servers;
};

// `port` is the default of a secure address.
RelaySettings relay_settings(const HostAddress& address, std::uint32_t port);

// The parts of a program's token, separated by spaces: the token sent with every request, the
// room's own token (the same if there is no second), and "pin=TEXT".
struct Credentials {
  std::string request_token;
  std::string room_token;
  bool has_room_token = false;
  std::string pin;
};
Credentials parse_credentials(const std::string& token);

}  // namespace sarnet::relay
