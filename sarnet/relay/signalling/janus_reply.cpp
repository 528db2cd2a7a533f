#include "relay/signalling/janus_reply.h"

#include <utility>

namespace sarnet::relay {

const json& member(const json& object, const char* name) {
  static const json nothing = json::object();
  if (!object.is_object()) return nothing;
  const auto found = object.find(name);
  return found != object.end() ? *found : nothing;
}

std::string text_of(const json& object, const char* name) {
  const json& value = member(object, name);
  return value.is_string() ? value.get<std::string>() : std::string();
}

std::int64_t number_of(const json& object, const char* name) {
  const json& value = member(object, name);
  // A fraction, or a number beyond the range, is none of the server's.
  return value.is_number_integer() ? value.get<std::int64_t>() : 0;
}

bool flag_of(const json& object, const char* name) {
  const json& value = member(object, name);
  return value.is_boolean() && value.get<bool>();
}

const json& plugin_data(const json& message) {
  return member(member(message, "plugindata"), "data");
}

std::string sdp_of(const json& message) { return text_of(member(message, "jsep"), "sdp"); }

const json& JanusReply::data() const { return plugin_data(message); }

std::string JanusReply::sdp() const { return sdp_of(message); }

JanusReply make_reply(json message) {
  JanusReply reply;
  reply.message = std::move(message);
  const json& error = member(reply.message, "error");
  const json& data = reply.data();
  if (text_of(reply.message, "janus") == "error") {
    reply.error = static_cast<int>(number_of(error, "code"));
    reply.text = text_of(error, "reason");
  } else if (number_of(data, "error_code") != 0) {
    reply.error = static_cast<int>(number_of(data, "error_code"));
    reply.text = text_of(data, "error");
  } else {
    return reply;
  }
  reply.outcome = JanusReply::Outcome::kRefused;
  return reply;
}

}  // namespace sarnet::relay
