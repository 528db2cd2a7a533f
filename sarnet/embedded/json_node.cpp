#include "embedded/json_node.h"

#include <algorithm>
#include <memory>

namespace sarnet {
namespace {

std::string list_of(std::initializer_list<std::string_view> keys) {
  std::string result;
  for (const std::string_view key : keys) {
    result += (result.empty() ? "" : ", ") + std::string(key);
  }
  return result;
}

// The parser lists all that it stumbled over, as "* Line 3, Column 5\n  Reason\n"; the first is the
// cause.
std::string first_syntax_error(const std::string& listed) {
  std::string text = listed.substr(0, listed.find("\n*", 1));
  text.erase(0, text.find_first_not_of("* "));
  std::string line;
  for (const char c : text) {
    if (c == '\n') {
      line += line.ends_with(':') || line.find(": ") != std::string::npos ? " " : ":";
    } else if (c != ' ' || !line.ends_with(' ')) {
      line += line.ends_with(':') && c != ' ' ? std::string(" ") + c : std::string(1, c);
    }
  }
  line.erase(line.find_last_not_of(" :.") + 1);
  return line;
}

}  // namespace

Json::Value parse_json(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["allowComments"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
    throw JsonError("", first_syntax_error(errors));
  }
  return root;
}

JsonNode JsonNode::operator[](const char* key) const {
  return {value_[key], path_.empty() ? key : path_ + "." + key};
}

void JsonNode::expect_list() const {
  if (!value_.isArray()) {
    throw JsonError(path_, "expected a list, found " + kind());
  }
}

void JsonNode::expect_object(std::initializer_list<std::string_view> keys) const {
  if (!value_.isObject()) {
    throw JsonError(path_, "expected an object, found " + kind());
  }
  for (const std::string& key : value_.getMemberNames()) {
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
      throw JsonError((*this)[key.c_str()].path_, "unknown key; known here: " + list_of(keys));
    }
  }
}

std::string JsonNode::text(const char* key, const std::string& otherwise) const {
  if (!has(key)) {
    return otherwise;
  }
  const JsonNode node = (*this)[key];
  if (!node.value_.isString()) {
    throw JsonError(node.path_, "expected a text, found " + node.kind());
  }
  std::string result = node.value_.asString();
  if (result.find('\0') != std::string::npos || valid_text(result) != result) {
    throw JsonError(node.path_, "holds a zero character or is not UTF-8");
  }
  return result;
}

std::string JsonNode::required_text(const char* key) const {
  require(key);
  std::string result = text(key, "");
  if (result.empty()) {
    throw JsonError((*this)[key].path_, "must not be empty");
  }
  return result;
}

bool JsonNode::flag(const char* key, bool otherwise) const {
  if (!has(key)) {
    return otherwise;
  }
  const JsonNode node = (*this)[key];
  if (!node.value_.isBool()) {
    throw JsonError(node.path_, "expected true or false, found " + node.kind());
  }
  return node.value_.asBool();
}

std::int64_t JsonNode::whole(const char* key, std::int64_t otherwise, std::int64_t least,
                             std::int64_t most) const {
  if (!has(key)) {
    return otherwise;
  }
  const JsonNode node = (*this)[key];
  if (!node.value_.isInt64()) {
    throw JsonError(node.path_, "expected a whole number, found " + node.kind());
  }
  const std::int64_t result = node.value_.asInt64();
  if (result < least || result > most) {
    throw JsonError(node.path_, "must be from " + std::to_string(least) + " to " +
                                    std::to_string(most) + ", is " + std::to_string(result));
  }
  return result;
}

double JsonNode::number(const char* key, double otherwise, double least, double most) const {
  if (!has(key)) {
    return otherwise;
  }
  const JsonNode node = (*this)[key];
  if (!node.value_.isNumeric()) {
    throw JsonError(node.path_, "expected a number, found " + node.kind());
  }
  const double result = node.value_.asDouble();
  if (!(result >= least && result <= most)) {
    throw JsonError(node.path_, "must be from " + Json::valueToString(least) + " to " +
                                    Json::valueToString(most));
  }
  return result;
}

void JsonNode::require(const char* key) const {
  if (!has(key)) {
    throw JsonError((*this)[key].path_, "is missing");
  }
}

void JsonNode::require_one_of(const char* first, const char* second) const {
  if (has(first) == has(second)) {
    throw JsonError(path_, std::string("needs either '") + first + "' or '" + second + "'" +
                               (has(first) ? ", not both" : ""));
  }
}

void JsonNode::refuse(const char* key, const std::string& reason) const {
  throw JsonError((*this)[key].path_, reason);
}

std::string JsonNode::kind() const {
  switch (value_.type()) {
    case Json::nullValue:
      return "null";
    case Json::booleanValue:
      return value_.asBool() ? "true" : "false";
    case Json::stringValue:
      return "a text";
    case Json::arrayValue:
      return "a list";
    case Json::objectValue:
      return "an object";
    default:
      return "the number " + value_.asString();
  }
}

}  // namespace sarnet
