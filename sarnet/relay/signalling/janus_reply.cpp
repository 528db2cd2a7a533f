#include "relay/signalling/janus_reply.h"

#include <limits>
#include <utility>

#include "relay/signalling/wire_limits.h"

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
  if (value.is_number_unsigned()) {
    const auto number = value.get<std::uint64_t>();
    return std::in_range<std::int64_t>(number) ? static_cast<std::int64_t>(number) : 0;
  }
  return value.is_number_integer() ? value.get<std::int64_t>() : 0;
}

std::uint64_t id_of(const json& object, const char* name) {
  const json& value = member(object, name);
  return value.is_number_unsigned() ? value.get<std::uint64_t>() : 0;
}

std::string text_id_of(const json& object, const char* name) {
  std::string id = text_of(object, name);
  const bool usable = id.size() <= kMaxId && id.find('\0') == std::string::npos;
  return usable ? id : std::string();
}

const json& list_of(const json& object, const char* name) {
  static const json nothing = json::array();
  const json& value = member(object, name);
  return value.is_array() ? value : nothing;
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

json parse_message(std::string_view text) {
  bool is_deep = false;
  const auto watch = [&](int depth, json::parse_event_t, const json&) {
    is_deep = is_deep || depth > kMaxDepth;
    return !is_deep;
  };
  json message = json::parse(text, watch, false);
  return message.is_object() && !is_deep ? std::move(message) : json();
}

std::string description_fault(std::string_view sdp) {
  if (sdp.size() > kMaxDescription) return "its session description is too long";
  std::size_t media = 0;
  for (auto at = sdp.find("\nm="); at != std::string_view::npos; at = sdp.find("\nm=", at + 1)) {
    ++media;
  }
  return media > kMaxMedia ? "its session description has too many media" : "";
}

namespace {

// What a reply lacks; empty when it is complete.
std::string fault_of(const JanusReply& reply, const Expected& expected) {
  const std::string kind = text_of(reply.message, "janus");
  if (kind != "success" && kind != "event" && kind != "ack") return "it is not an answer";
  if (expected.id && id_of(member(reply.message, "data"), "id") == 0) return "it has no usable id";
  if (expected.room != nullptr && text_of(reply.data(), "videoroom") != expected.room) {
    return std::string("it does not say '") + expected.room + "'";
  }
  if (expected.list != nullptr && !member(reply.data(), expected.list).is_array()) {
    return std::string("it has no list of ") + expected.list;
  }
  if (expected.sdp && reply.sdp().empty()) return "it has no session description";
  return description_fault(reply.sdp());
}

// Any refusal counts as one, with any error number.
void refuse(JanusReply& reply, const json& code, std::string text) {
  const bool is_number = code.is_number_integer() && code <= std::numeric_limits<int>::max() &&
                         code >= std::numeric_limits<int>::min();
  reply.outcome = JanusReply::Outcome::kRefused;
  reply.error = is_number ? code.get<int>() : 0;
  reply.text = std::move(text);
}

}  // namespace

JanusReply make_reply(json message, const Expected& expected) {
  JanusReply reply;
  reply.message = std::move(message);
  const json& data = reply.data();
  if (text_of(reply.message, "janus") == "error") {
    const json& error = member(reply.message, "error");
    refuse(reply, member(error, "code"), text_of(error, "reason"));
  } else if (data.contains("error_code") || data.contains("error")) {
    refuse(reply, member(data, "error_code"), text_of(data, "error"));
  } else if (reply.text = fault_of(reply, expected); !reply.text.empty()) {
    reply.outcome = JanusReply::Outcome::kMalformed;
  }
  return reply;
}

}  // namespace sarnet::relay
