#include "relay/media/transport/ice_endpoint.h"

#include <glib.h>

#include <charconv>
#include <memory>

#include "relay/signalling/glib_handles.h"

namespace sarnet::relay {
namespace {

std::optional<std::string> unescaped(std::string_view text) {
  const TextPtr plain(g_uri_unescape_segment(text.data(), text.data() + text.size(), nullptr));
  if (!plain) return std::nullopt;
  return std::string(plain.get());
}

// "host", "host:port", "[address]" or "[address]:port".
bool read_host(std::string_view text, IceEndpoint& endpoint) {
  std::string_view port;
  if (text.starts_with('[')) {
    const std::size_t end = text.find(']');
    if (end == std::string_view::npos) return false;
    endpoint.host = text.substr(1, end - 1);
    port = text.substr(end + 1);
  } else {
    const std::size_t colon = text.find(':');
    endpoint.host = text.substr(0, colon);
    port = colon == std::string_view::npos ? "" : text.substr(colon);
  }
  if (endpoint.host.empty()) return false;
  if (port.empty()) return true;
  const char* const end = port.data() + port.size();
  const auto result = std::from_chars(port.data() + 1, end, endpoint.port);
  return port.front() == ':' && result.ec == std::errc() && result.ptr == end &&
         endpoint.port > 0 && endpoint.port < 65536;
}

}  // namespace

std::optional<IceEndpoint> parse_ice_endpoint(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::string_view scheme = text.substr(0, colon);
  std::string_view rest = text.substr(colon + 1);
  if (rest.starts_with("//")) rest.remove_prefix(2);
  IceEndpoint endpoint;
  endpoint.is_relay = scheme == "turn";
  // There is no TURN over TLS here.
  if (!endpoint.is_relay && scheme != "stun") return std::nullopt;
  const std::size_t at = rest.rfind('@');
  if ((at != std::string_view::npos) != endpoint.is_relay) return std::nullopt;
  if (endpoint.is_relay) {
    const std::string_view who = rest.substr(0, at);
    const std::size_t end = who.find(':');
    rest.remove_prefix(at + 1);
    if (end == std::string_view::npos) return std::nullopt;
    const auto user = unescaped(who.substr(0, end));
    const auto password = unescaped(who.substr(end + 1));
    if (!user || !password || user->empty()) return std::nullopt;
    endpoint.user = *user;
    endpoint.password = *password;
  }
  const std::size_t query = rest.find('?');
  if (query != std::string_view::npos) {
    const std::string_view transport = rest.substr(query + 1);
    endpoint.over_tcp = transport == "transport=tcp";
    if (!endpoint.over_tcp && transport != "transport=udp") return std::nullopt;
    rest = rest.substr(0, query);
  }
  if (!read_host(rest, endpoint)) return std::nullopt;
  return endpoint;
}

}  // namespace sarnet::relay
