#include "base/host_address.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <string_view>

namespace sarnet {
namespace {

constexpr std::string_view kEmbeddedScheme = "embedded:";
constexpr std::string_view kLocalSuffix = ".localhost";

bool is_name(std::string_view text) {
  return !text.empty() && text.front() != '.' && text.front() != '-' && text.back() != '.' &&
         std::all_of(text.begin(), text.end(), [](unsigned char each) {
           return std::isalnum(each) != 0 || each == '.' || each == '-' || each == '_';
         });
}

bool is_ipv6(std::string_view text) {
  return text.find(':') != std::string_view::npos &&
         std::all_of(text.begin(), text.end(), [](unsigned char each) {
           return std::isxdigit(each) != 0 || each == ':' || each == '.';
         });
}

// Takes "HOST", "HOST:PORT", "[ADDRESS]" or "[ADDRESS]:PORT".
bool parse_authority(std::string_view text, HostAddress& address) {
  std::string_view port;
  bool has_port = false;
  if (text.starts_with('[')) {
    const auto end = text.find(']');
    if (end == std::string_view::npos || !is_ipv6(text.substr(1, end - 1))) return false;
    address.host = text.substr(1, end - 1);
    const std::string_view rest = text.substr(end + 1);
    has_port = rest.starts_with(':');
    if (!has_port && !rest.empty()) return false;
    if (has_port) port = rest.substr(1);
  } else {
    const auto colon = text.find(':');
    has_port = colon != std::string_view::npos;
    if (has_port) port = text.substr(colon + 1);
    if (!is_name(text.substr(0, colon))) return false;
    address.host = text.substr(0, colon);
  }
  if (!has_port) return true;
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
  return error == std::errc{} && end == port.data() + port.size() && address.port >= 1 &&
         address.port <= 65535;
}

}  // namespace

bool HostAddress::is_loopback() const {
  return host == "localhost" || host == "::1" || host.starts_with("127.") ||
         host.ends_with(kLocalSuffix);
}

std::optional<HostAddress> parse_host(const std::string& text) {
  HostAddress address;
  std::string_view rest = text;
  if (rest.starts_with(kEmbeddedScheme)) {
    address.scenario = rest.substr(kEmbeddedScheme.size());
    return address;
  }
  if (is_name(rest) && rest.ends_with(kLocalSuffix)) return address;
  address.kind = HostAddress::Kind::kRelay;
  bool may_have_path = true;
  if (rest.starts_with("wss://")) {
    rest.remove_prefix(6);
  } else if (rest.starts_with("ws://")) {
    rest.remove_prefix(5);
    address.secure = false;
  } else {
    may_have_path = false;
  }
  if (const auto slash = rest.find('/'); may_have_path && slash != std::string_view::npos) {
    address.path = rest.substr(slash);
    rest = rest.substr(0, slash);
  }
  if (!parse_authority(rest, address)) return std::nullopt;
  return address;
}

}  // namespace sarnet
