#include "relay/room/room_member.h"

namespace sarnet::relay {

Display parse_display(const std::string& text) {
  const json object = json::parse(text, nullptr, false);
  if (!object.is_object()) return {text, 0, text, ""};
  return {text_of(object, "data"), number_of(object, "joined"), text_of(object, "stream"),
          text_of(object, "owner")};
}

std::string format_display(const Display& display) {
  json object{{"data", display.data}, {"joined", display.joined_ms}};
  if (!display.stream.empty()) object["stream"] = display.stream;
  if (!display.owner.empty()) object["owner"] = display.owner;
  return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace sarnet::relay
