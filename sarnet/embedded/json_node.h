#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "base/printable_text.h"

namespace sarnet {

// What is wrong with a JSON text and where, in one line: "participants[0].id: is missing".
struct JsonError : std::runtime_error {
  JsonError(const std::string& where, const std::string& what);
};

// Reads strict JSON in UTF-8, comments allowed. Throws JsonError with the line and column of the
// first mistake, or the path of a duplicate key or of nesting deeper than 32.
nlohmann::json parse_json(const std::string& text);

// A value with its path in the text, e.g. participants[1].captions[0].at_ms. Borrows the value.
// Readers give `otherwise` for a missing key, and throw JsonError for a value that does not fit.
class JsonNode {
 public:
  JsonNode(const nlohmann::json& value, std::string path) : value_(value), path_(std::move(path)) {}

  // The value must be an object with no keys but these. Call before all below.
  void expect_object(std::initializer_list<std::string_view> keys) const;

  bool has(const char* key) const { return value_.contains(key); }
  JsonNode operator[](const std::string& key) const;  // must be present

  std::string text(const char* key, const std::string& otherwise) const;  // without zeros
  std::string required_text(const char* key) const;                       // nor empty
  bool flag(const char* key, bool otherwise) const;
  std::int64_t whole(const char* key, std::int64_t otherwise, std::int64_t least,
                     std::int64_t most) const;
  double number(const char* key, double otherwise, double least, double most) const;

  // Visits the items of a list in order; none when the key is missing.
  template <class Visit>
  void each(const char* key, Visit visit) const {
    if (!has(key)) return;
    const JsonNode list = (*this)[key];
    list.expect_list();
    for (std::size_t i = 0; i < list.value_.size(); ++i) {
      visit(JsonNode(list.value_[i], list.path_ + "[" + std::to_string(i) + "]"));
    }
  }

  void require(const char* key) const;
  // Two keys, exactly one of which must be present.
  void require_one_of(const char* first, const char* second) const;
  // Throws for a key whose value the caller rejects.
  [[noreturn]] void refuse(const char* key, const std::string& reason) const;
  std::string place_of(const std::string& key) const;

 private:
  void expect_list() const;
  std::string kind() const;

  const nlohmann::json& value_;
  std::string path_;
};

}  // namespace sarnet
