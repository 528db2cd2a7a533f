#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sarnet::relay {

// A caption as it travels in a data channel: {"type":"caption","text":"...","final":true}.
struct CaptionText {
  std::string text;
  bool is_final = true;
};

// Text that is not UTF-8 is repaired with U+FFFD.
std::string encode_caption(std::string_view text, bool is_final);

// Plain text of other programs counts as a final caption, "caption" messages without a flag too;
// other JSON objects are no captions, nor is anything empty or longer than 64 KiB.
std::optional<CaptionText> decode_caption(std::string_view message);

}  // namespace sarnet::relay
