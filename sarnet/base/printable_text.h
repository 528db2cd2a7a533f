#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace sarnet {

// Enough of a text to know it by, in a log line or an error's description.
inline constexpr std::size_t kPrintableLength = 200;

// A text of somebody else as it may stand in a log line or an error's description: valid UTF-8
// without control characters, line and paragraph separators and marks that turn the direction of
// writing, each of which becomes U+FFFD, as does what is not UTF-8. At most `limit` bytes long; one
// that is cut ends in an ellipsis behind a whole character, within the limit. Any thread.
std::string printable_text(std::string_view text, std::size_t limit = kPrintableLength);

// The same text as valid UTF-8, unchanged but for what is not; data for the program.
std::string valid_text(std::string_view text);

}  // namespace sarnet
