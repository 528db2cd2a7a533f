#include "embedded/json_node.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <vector>

#include "base/printable_text.h"

namespace sarnet {
namespace {

using nlohmann::json;

constexpr std::size_t kMaxDepth = 32;

std::string list_of(std::initializer_list<std::string_view> keys) {
  std::string result;
  for (const std::string_view key : keys) result += (result.empty() ? "" : ", ") + std::string(key);
  return result;
}

// Receives the parser's events, and throws JsonError where parsing stops.
class Guard {
 public:
  void operator()(json::parse_event_t event, const json& parsed) {
    switch (event) {
      case json::parse_event_t::object_start:
      case json::parse_event_t::array_start:
        if (levels_.size() == kMaxDepth) {
          throw JsonError(place(),
                          "is nested deeper than " + std::to_string(kMaxDepth) + " levels");
        }
        levels_.push_back({event == json::parse_event_t::array_start, {}, {}, 0});
        break;
      case json::parse_event_t::key:
        levels_.back().key = parsed.get<std::string>();
        if (!levels_.back().keys.insert(levels_.back().key).second) {
          throw JsonError(place(), "is there twice");
        }
        break;
      case json::parse_event_t::object_end:
      case json::parse_event_t::array_end:
        levels_.pop_back();
        [[fallthrough]];
      case json::parse_event_t::value:
        if (!levels_.empty()) ++levels_.back().index;
        break;
    }
  }

  std::string place() const {
    std::string path;
    for (const Level& level : levels_) {
      if (level.is_list) {
        path += "[" + std::to_string(level.index) + "]";
      } else if (!level.key.empty()) {
        path += (path.empty() ? "" : ".") + level.key;
      }
    }
    return path;
  }

 private:
  struct Level {
    bool is_list = false;
    std::set<std::string> keys;
    std::string key;
    std::size_t index = 0;
  };
  std::vector<Level> levels_;
};

// Enough for a path of keys and the reason.
constexpr std::size_t kMaxErrorLength = 1000;

// "[json.exception.parse_error.101] parse error at line 3, column 3: reason" without the names of
// the library.
std::string reason_of(const json::exception& failure) {
  std::string text = failure.what();
  for (const std::string_view end : {"] ", "parse error at "}) {
    if (const auto found = text.find(end); found != std::string::npos) {
      text.erase(0, found + end.size());
    }
  }
  // It quotes the input unchanged, however long and even if it is not text.
  return text.substr(0, text.find("; last read: "));
}

}  // namespace

JsonError::JsonError(const std::string& where, const std::string& what)
    : std::runtime_error(
          printable_text(where.empty() ? what : where + ": " + what, kMaxErrorLength)) {}

json parse_json(const std::string& text) {
  Guard guard;
  try {
    return json::parse(
        text,
        [&guard](int, json::parse_event_t event, const json& parsed) {
          guard(event, parsed);
          return true;
        },
        true, true);
  } catch (const json::parse_error& failure) {
    throw JsonError("", reason_of(failure));
  } catch (const json::exception& failure) {
    throw JsonError(guard.place(), reason_of(failure));
  }
}

JsonNode JsonNode::operator[](const std::string& key) const {
  return {value_.at(key), place_of(key)};
}

std::string JsonNode::place_of(const std::string& key) const {
  return path_.empty() ? key : path_ + "." + key;
}

void JsonNode::expect_list() const {
  if (!value_.is_array()) throw JsonError(path_, "expected a list, found " + kind());
}

void JsonNode::expect_object(std::initializer_list<std::string_view> keys) const {
  if (!value_.is_object()) throw JsonError(path_, "expected an object, found " + kind());
  for (const auto& [key, value] : value_.items()) {
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
      throw JsonError(place_of(key), "unknown key; known here: " + list_of(keys));
    }
  }
}

std::string JsonNode::text(const char* key, const std::string& otherwise) const {
  if (!has(key)) return otherwise;
  const JsonNode node = (*this)[key];
  if (!node.value_.is_string()) {
    throw JsonError(node.path_, "expected a text, found " + node.kind());
  }
  auto result = node.value_.get<std::string>();
  if (result.find('\0') != std::string::npos) throw JsonError(node.path_, "holds a zero character");
  return result;
}

std::string JsonNode::required_text(const char* key) const {
  require(key);
  std::string result = text(key, "");
  if (result.empty()) throw JsonError(place_of(key), "must not be empty");
  return result;
}

bool JsonNode::flag(const char* key, bool otherwise) const {
  if (!has(key)) return otherwise;
  const JsonNode node = (*this)[key];
  if (!node.value_.is_boolean()) {
    throw JsonError(node.path_, "expected true or false, found " + node.kind());
  }
  return node.value_.get<bool>();
}

std::int64_t JsonNode::whole(const char* key, std::int64_t otherwise, std::int64_t least,
                             std::int64_t most) const {
  if (!has(key)) return otherwise;
  const JsonNode node = (*this)[key];
  // 250.0 counts as whole.
  const double nearly = node.value_.is_number() ? node.value_.get<double>() : NAN;
  if (std::abs(nearly) > 9e18 || nearly != std::floor(nearly)) {
    throw JsonError(node.path_, "expected a whole number, found " + node.kind());
  }
  const auto result = node.value_.get<std::int64_t>();
  if (result < least || result > most) {
    throw JsonError(node.path_, "must be from " + std::to_string(least) + " to " +
                                    std::to_string(most) + ", is " + std::to_string(result));
  }
  return result;
}

double JsonNode::number(const char* key, double otherwise, double least, double most) const {
  if (!has(key)) return otherwise;
  const JsonNode node = (*this)[key];
  if (!node.value_.is_number()) {
    throw JsonError(node.path_, "expected a number, found " + node.kind());
  }
  const auto result = node.value_.get<double>();
  if (!(result >= least && result <= most)) {
    throw JsonError(node.path_, "must be from " + json(least).dump() + " to " + json(most).dump());
  }
  return result;
}

void JsonNode::require(const char* key) const {
  if (!has(key)) throw JsonError(place_of(key), "is missing");
}

void JsonNode::require_one_of(const char* first, const char* second) const {
  if (has(first) == has(second)) {
    throw JsonError(path_, std::string("needs either '") + first + "' or '" + second + "'" +
                               (has(first) ? ", not both" : ""));
  }
}

void JsonNode::refuse(const char* key, const std::string& reason) const {
  throw JsonError(place_of(key), reason);
}

std::string JsonNode::kind() const {
  switch (value_.type()) {
    case json::value_t::string:
      return "a text";
    case json::value_t::array:
      return "a list";
    case json::value_t::object:
      return "an object";
    default:
      return (value_.is_number() ? "the number " : "") + value_.dump();
  }
}

}  // namespace sarnet
