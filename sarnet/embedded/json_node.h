#pragma once

#include <json/json.h>

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "base/printable_text.h"

namespace sarnet {

// What is wrong with a JSON text and where: "participants[0].id: is missing". Printable, whatever
// the text holds.
struct JsonError : std::runtime_error {
  JsonError(const std::string& where, const std::string& what)
      : std::runtime_error(printable_text(where.empty() ? what : where + ": " + what, 1000)) {}
};

// Reads strict JSON, but for comments. Throws JsonError with the line of the first mistake, and
// what the JSON library throws for nesting without end.
Json::Value parse_json(const std::string& text);

// A value together with its place in the text, e.g. participants[1].captions[0].at_ms. Borrows the
// value. Readers give `otherwise` for a key that is not there, and throw JsonError for a value that
// does not fit.
class JsonNode {
 public:
  JsonNode(const Json::Value& value, std::string path) : value_(value), path_(std::move(path)) {}

  // The value must be an object without other keys than these. Comes before all below.
  void expect_object(std::initializer_list<std::string_view> keys) const;

  bool has(const char* key) const { return value_.isMember(key); }
  JsonNode operator[](const char* key) const;

  std::string text(const char* key, const std::string& otherwise) const;  // UTF-8 without zeros
  std::string required_text(const char* key) const;                       // nor empty
  bool flag(const char* key, bool otherwise) const;
  std::int64_t whole(const char* key, std::int64_t otherwise, std::int64_t least,
                     std::int64_t most) const;
  double number(const char* key, double otherwise, double least, double most) const;

  // Visits the items of a list in order; none when the key is not there.
  template <class Visit>
  void each(const char* key, Visit visit) const {
    if (!has(key)) {
      return;
    }
    const JsonNode list = (*this)[key];
    list.expect_list();
    for (Json::ArrayIndex i = 0; i < list.value_.size(); ++i) {
      visit(JsonNode(list.value_[i], list.path_ + "[" + std::to_string(i) + "]"));
    }
  }

  void require(const char* key) const;
  // Two keys that exclude each other; one of them must be there.
  void require_one_of(const char* first, const char* second) const;
  // Throws for a key whose value the caller does not like.
  [[noreturn]] void refuse(const char* key, const std::string& reason) const;

 private:
  void expect_list() const;
  std::string kind() const;

  const Json::Value& value_;
  std::string path_;
};

}  // namespace sarnet
