#include "relay/peer/sdp_text.h"

#include <algorithm>

namespace sarnet::relay {

namespace {

// Calls `visit` with each line, without its end, and the same with its end; stops when it gives
// false.
template <class Visit>
void for_each_line(std::string_view sdp, Visit&& visit) {
  while (!sdp.empty()) {
    const std::size_t end = std::min(sdp.find('\n'), sdp.size() - 1) + 1;
    const std::string_view whole = sdp.substr(0, end);
    std::string_view line = whole;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    if (!visit(line, whole)) return;
    sdp.remove_prefix(end);
  }
}

// The word at `index` of a line of words separated by single spaces.
std::string_view word(std::string_view line, int index) {
  for (; index > 0; --index) {
    const std::size_t space = line.find(' ');
    line.remove_prefix(space == std::string_view::npos ? line.size() : space + 1);
  }
  return line.substr(0, line.find(' '));
}

bool is_accepted(std::string_view media_line) { return word(media_line, 1) != "0"; }

}  // namespace

std::string without_full_intra_requests(std::string_view sdp) {
  std::string kept;
  kept.reserve(sdp.size());
  for_each_line(sdp, [&](std::string_view line, std::string_view whole) {
    if (!line.starts_with("a=rtcp-fb:") || !line.ends_with(" ccm fir")) kept += whole;
    return true;
  });
  return kept;
}

std::string first_video_codec(std::string_view sdp) {
  std::string_view payload;
  std::string codec;
  for_each_line(sdp, [&](std::string_view line, std::string_view) {
    if (line.starts_with("m=")) {
      payload = line.starts_with("m=video ") && is_accepted(line) ? word(line, 3) : "";
    } else if (!payload.empty() && line.starts_with("a=rtpmap:") &&
               word(line.substr(sizeof("a=rtpmap:") - 1), 0) == payload) {
      codec = word(line, 1).substr(0, word(line, 1).find('/'));
    }
    return codec.empty();
  });
  return codec;
}

}  // namespace sarnet::relay
