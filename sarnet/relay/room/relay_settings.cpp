#include "relay/room/relay_settings.h"

#include <cstdlib>
#include <sstream>
#include <string_view>

#include "base/log.h"

namespace sarnet::relay {
namespace {

constexpr unsigned kMaxJitterMs = 10'000;

std::string environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody here sets any
  return value != nullptr ? value : "";
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

unsigned jitter_of(const std::string& text, unsigned otherwise) {
  if (text.empty()) return otherwise;
  char* end = nullptr;
  const unsigned long value = std::strtoul(text.c_str(), &end, 10);
  if (*end == '\0' && value <= kMaxJitterMs) return static_cast<unsigned>(value);
  SARNET_LOG(kWarn, "SARNET_RELAY_JITTER_MS is not a number of milliseconds: " << text);
  return otherwise;
}

}  // namespace

RelaySettings relay_settings(const HostAddress& address, std::uint32_t port) {
  RelaySettings settings;
  const bool is_ipv6 = address.host.find(':') != std::string::npos;
  const std::string host = is_ipv6 ? "[" + address.host + "]" : address.host;
  const std::uint32_t chosen =
      address.port != 0 || !address.secure ? static_cast<std::uint32_t>(address.port) : port;
  settings.url = (address.secure ? "wss://" : "ws://") + host;
  if (chosen != 0) settings.url.append(":").append(std::to_string(chosen));
  settings.url += address.path.empty() ? "/" : address.path;
  settings.ca_file = environment("SARNET_RELAY_CA_FILE");
  settings.admin_key = environment("SARNET_RELAY_ADMIN_KEY");
  settings.loopback = address.is_loopback() || environment("SARNET_RELAY_LOOPBACK") == "1";
  settings.jitter_ms = jitter_of(environment("SARNET_RELAY_JITTER_MS"), settings.jitter_ms);
  settings.ice_servers = split(environment("SARNET_RELAY_ICE_SERVERS"), ',');
  return settings;
}

Credentials parse_credentials(const std::string& token) {
  constexpr std::string_view kPin = "pin=";
  Credentials credentials;
  for (const std::string& part : split(token, ' ')) {
    if (part.starts_with(kPin)) {
      credentials.pin = part.substr(kPin.size());
    } else if (credentials.request_token.empty()) {
      credentials.request_token = part;
    } else {
      credentials.room_token = part;
      credentials.has_room_token = true;
    }
  }
  if (!credentials.has_room_token) credentials.room_token = credentials.request_token;
  return credentials;
}

}  // namespace sarnet::relay
