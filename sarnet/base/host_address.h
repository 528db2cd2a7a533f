#pragma once

#include <optional>
#include <string>

namespace sarnet {

// What the host string of a connection names.
struct HostAddress {
  enum class Kind {
    kEmbedded,  // "NAME.localhost", "embedded:", "embedded:PATH"
    kRelay,     // "HOST", "HOST:PORT", "ws://HOST[:PORT][/PATH]", "wss://HOST[:PORT][/PATH]"
  };
  Kind kind = Kind::kEmbedded;
  std::string scenario;  // embedded: a file, or empty for the default scenario
  std::string host;      // relay: a name or address, IPv6 without its brackets
  int port = 0;          // relay: 0 when not given
  std::string path;      // relay: with its leading slash, or empty
  bool secure = true;    // relay: over TLS

  bool is_loopback() const;
};

// Empty for a text in none of these forms.
std::optional<HostAddress> parse_host(const std::string& text);

}  // namespace sarnet
