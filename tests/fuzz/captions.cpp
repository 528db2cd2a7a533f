// What other participants write: captions over a data channel, and the display field of their
// presence.
#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "relay/peer/caption_text.h"
#include "relay/room/room_member.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sarnet::relay;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto caption = decode_caption(text);
  // A caption that was taken can be passed on, unless escapes make it too long, and comes back as
  // it is.
  if (caption && caption->text.size() < 8192) {
    const auto again = decode_caption(encode_caption(caption->text, caption->is_final));
    if (!again || again->text != caption->text || again->is_final != caption->is_final) {
      __builtin_trap();
    }
  }
  if (g_utf8_validate_len(text.data(), text.size(), nullptr) == FALSE)
    return 0;  // as JSON's strings are
  const Display display = parse_display(std::string(text));
  const Display again = parse_display(format_display(display));
  if (again.data != display.data || again.owner != display.owner) __builtin_trap();
  return 0;
}
