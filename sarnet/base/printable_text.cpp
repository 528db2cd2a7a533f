#include "base/printable_text.h"

#include <cstdint>

namespace sarnet {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD
constexpr std::string_view kEllipsis = "\xE2\x80\xA6";     // U+2026

// The length and code of the text's first character; 0 when it is not UTF-8.
std::size_t first_character(std::string_view text, std::uint32_t& code) {
  const auto byte = [&](std::size_t at) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(text[at]));
  };
  code = byte(0);
  if (code < 0x80) return 1;
  const std::size_t length = code < 0xC2   ? 0
                             : code < 0xE0 ? 2
                             : code < 0xF0 ? 3
                             : code < 0xF5 ? 4
                                           : 0;
  if (length == 0 || length > text.size()) return 0;
  code &= 0x7FU >> length;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3FU);
  }
  const bool is_overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
  return is_overlong || is_surrogate || code > 0x10FFFF ? 0 : length;
}

bool is_printable(std::uint32_t code) {
  if (code < 0x20 || (code >= 0x7F && code < 0xA0)) return false;
  const bool turns = code == 0x061C || code == 0x200E || code == 0x200F ||
                     (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
  return !turns && code != 0x2028 && code != 0x2029;
}

template <class Keep>
std::string replace(std::string_view text, std::size_t limit, Keep&& keep) {
  std::string kept;
  std::size_t with_ellipsis = 0;  // the length that leaves room for an ellipsis
  while (!text.empty()) {
    std::uint32_t code = 0;
    const std::size_t length = first_character(text, code);
    const bool stays = length != 0 && keep(code);
    const std::string_view next = stays ? text.substr(0, length) : kReplacement;
    if (next.size() > limit - kept.size()) {
      kept.resize(with_ellipsis);
      return kept.append(kEllipsis);
    }
    kept.append(next);
    if (kept.size() + kEllipsis.size() <= limit) with_ellipsis = kept.size();
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return kept;
}

}  // namespace

std::string printable_text(std::string_view text, std::size_t limit) {
  return replace(text, limit, is_printable);
}

std::string valid_text(std::string_view text) {
  return replace(text, std::string::npos, [](std::uint32_t) { return true; });
}

}  // namespace sarnet
