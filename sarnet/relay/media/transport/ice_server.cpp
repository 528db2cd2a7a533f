#include "relay/media/transport/ice_server.h"

#include <array>

namespace sarnet::relay {

IceServer parse_ice_server(std::string_view text) {
  struct Scheme {
    std::string_view name;
    IceServer::Kind kind;
  };
  // "turns" is refused: there is no TURN over TLS here.
  static constexpr std::array<Scheme, 2> kSchemes{
      {{"stun", IceServer::Kind::kStun}, {"turn", IceServer::Kind::kTurn}}};
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    return {};
  }
  const std::string_view name = text.substr(0, colon);
  std::string_view rest = text.substr(colon + 1);
  if (rest.starts_with("//")) rest.remove_prefix(2);
  for (const Scheme& scheme : kSchemes) {
    if (scheme.name != name) continue;
    const std::size_t at = rest.rfind('@');
    const bool has_user = at != std::string_view::npos && at > 0;
    const bool wants_user = scheme.kind == IceServer::Kind::kTurn;
    const std::string_view host = has_user ? rest.substr(at + 1) : rest;
    if (host.empty() || has_user != wants_user) {
      return {};
    }
    std::string uri = std::string(name) + "://";
    for (const char c : has_user ? rest.substr(0, at) : "") {
      uri += c == '@' ? "%40" : std::string(1, c);
    }
    uri += has_user ? rest.substr(at) : rest;
    if (scheme.kind == IceServer::Kind::kStun && host.find(':') == std::string_view::npos) {
      uri += ":3478";
    }
    return {scheme.kind, std::move(uri)};
  }
  return {};
}

}  // namespace sarnet::relay
