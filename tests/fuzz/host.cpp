// What a program may be handed as a host, a token or an ICE server.
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/host_address.h"
#include "relay/media/transport/ice_endpoint.h"
#include "relay/room/relay_settings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (const auto address = sarnet::parse_host(text)) {
    const bool is_relay = address->kind == sarnet::HostAddress::Kind::kRelay;
    if (is_relay && (address->host.empty() || address->port < 0 || address->port > 65535)) {
      __builtin_trap();
    }
    if (is_relay) sarnet::relay::relay_settings(*address, 443);
  }
  const sarnet::relay::Credentials credentials = sarnet::relay::parse_credentials(text);
  if (credentials.request_token.find(' ') != std::string::npos) __builtin_trap();
  const auto server = sarnet::relay::parse_ice_endpoint(text);
  if (server && (server->host.empty() || server->port > 65535)) __builtin_trap();
  return 0;
}
