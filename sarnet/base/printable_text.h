#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace sarnet {

// Enough to identify a text in a log line or an error's description.
inline constexpr std::size_t kPrintableLength = 200;

// Makes foreign text safe for a log line or an error's description: control characters, line and
// paragraph separators, bidirectional marks and invalid UTF-8 become U+FFFD. At most `limit` bytes;
// a cut text ends in an ellipsis after a whole character, within the limit. Any thread.
std::string printable_text(std::string_view text, std::size_t limit = kPrintableLength);

// The text with invalid UTF-8 replaced and nothing else changed; data for the program.
std::string valid_text(std::string_view text);

}  // namespace sarnet
