#include "relay/room/room_member.h"

#include "relay/signalling/wire_limits.h"

namespace sarnet::relay {
namespace {

constexpr std::int64_t kEndOfTimeMs = 253'402'300'800'000;  // the year 10000: date types end there

}  // namespace

Display parse_display(const std::string& text) {
  if (text.size() > kMaxDisplay) return {};
  const json object = parse_message(text);
  if (object.is_null()) return {text, 0, text, ""};
  const std::int64_t joined_ms = number_of(object, "joined");
  return {text_of(object, "data"), joined_ms > 0 && joined_ms < kEndOfTimeMs ? joined_ms : 0,
          text_of(object, "stream"), text_id_of(object, "owner")};
}

std::string format_display(const Display& display) {
  json object{{"data", display.data}, {"joined", display.joined_ms}};
  if (!display.stream.empty()) object["stream"] = display.stream;
  if (!display.owner.empty()) object["owner"] = display.owner;
  return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace sarnet::relay
