#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <initializer_list>
#include <limits>
#include <memory>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "embedded/scenario.h"

namespace sarnet {
namespace {

constexpr std::int64_t kMaxMs = 30LL * 24 * 3600 * 1000;
constexpr int kMaxVideoSide = 4096;
constexpr int kMaxFps = 120;

// What is wrong and where; ends as the text of one error.
struct Wrong : std::runtime_error {
  Wrong(const std::string& where, const std::string& what)
      : std::runtime_error(where.empty() ? what : where + ": " + what) {}
};

bool is_utf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i++]);
    if (lead < 0x80) {
      continue;
    }
    const std::size_t more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    std::uint32_t point = lead & (0x3FU >> more);
    for (std::size_t k = 0; k < more; ++k, ++i) {
      if (i >= text.size() || (static_cast<unsigned char>(text[i]) & 0xC0U) != 0x80) {
        return false;
      }
      point = (point << 6U) | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    constexpr std::array<std::uint32_t, 4> kShortest{0, 0x80, 0x800, 0x10000};
    if (lead < 0xC2 || lead > 0xF4 || point < kShortest[more] || point > 0x10FFFF ||
        (point >= 0xD800 && point < 0xE000)) {
      return false;
    }
  }
  return true;
}

// A value together with its place in the file, e.g. participants[1].captions[0].at_ms.
class Node {
 public:
  Node(const Json::Value& value, std::string path) : value_(value), path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  bool has(const char* key) const { return value_.isMember(key); }
  Node operator[](const char* key) const {
    return {value_[key], path_.empty() ? key : path_ + "." + key};
  }

  void expect_object(std::initializer_list<std::string_view> keys) const {
    if (!value_.isObject()) {
      throw Wrong(path_, "expected an object, found " + kind());
    }
    for (const std::string& key : value_.getMemberNames()) {
      if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
        throw Wrong((*this)[key.c_str()].path_, "unknown key; known here: " + list(keys));
      }
    }
  }

  template <class Visit>
  void each(const char* key, Visit visit) const {
    if (!has(key)) {
      return;
    }
    const Node list = (*this)[key];
    if (!list.value_.isArray()) {
      throw Wrong(list.path_, "expected a list, found " + list.kind());
    }
    for (Json::ArrayIndex i = 0; i < list.value_.size(); ++i) {
      visit(Node(list.value_[i], list.path_ + "[" + std::to_string(i) + "]"));
    }
  }

  std::string text(const char* key, const std::string& otherwise) const {
    if (!has(key)) {
      return otherwise;
    }
    const Node node = (*this)[key];
    if (!node.value_.isString()) {
      throw Wrong(node.path_, "expected a text, found " + node.kind());
    }
    std::string result = node.value_.asString();
    if (result.find('\0') != std::string::npos || !is_utf8(result)) {
      throw Wrong(node.path_, "holds a zero character or is not UTF-8");
    }
    return result;
  }

  std::string required_text(const char* key) const {
    require(key);
    std::string result = text(key, "");
    if (result.empty()) {
      throw Wrong((*this)[key].path_, "must not be empty");
    }
    return result;
  }

  bool flag(const char* key, bool otherwise) const {
    if (!has(key)) {
      return otherwise;
    }
    const Node node = (*this)[key];
    if (!node.value_.isBool()) {
      throw Wrong(node.path_, "expected true or false, found " + node.kind());
    }
    return node.value_.asBool();
  }

  std::int64_t whole(const char* key, std::int64_t otherwise, std::int64_t least,
                     std::int64_t most) const {
    if (!has(key)) {
      return otherwise;
    }
    const Node node = (*this)[key];
    if (!node.value_.isInt64()) {
      throw Wrong(node.path_, "expected a whole number, found " + node.kind());
    }
    const std::int64_t result = node.value_.asInt64();
    if (result < least || result > most) {
      throw Wrong(node.path_, "must be from " + std::to_string(least) + " to " +
                                  std::to_string(most) + ", is " + std::to_string(result));
    }
    return result;
  }

  std::int64_t required_ms(const char* key) const {
    require(key);
    return whole(key, 0, 0, kMaxMs);
  }

  double number(const char* key, double otherwise, double least, double most) const {
    if (!has(key)) {
      return otherwise;
    }
    const Node node = (*this)[key];
    if (!node.value_.isNumeric()) {
      throw Wrong(node.path_, "expected a number, found " + node.kind());
    }
    const double result = node.value_.asDouble();
    if (!(result >= least && result <= most)) {
      throw Wrong(node.path_, "must be from " + Json::valueToString(least) + " to " +
                                  Json::valueToString(most));
    }
    return result;
  }

  void require(const char* key) const {
    if (!has(key)) {
      throw Wrong((*this)[key].path_, "is missing");
    }
  }

  // Two keys that exclude each other; one of them must be there.
  void require_one_of(const char* first, const char* second) const {
    if (has(first) == has(second)) {
      throw Wrong(path_, std::string("needs either '") + first + "' or '" + second + "'" +
                             (has(first) ? ", not both" : ""));
    }
  }

  void refuse(const char* key, const std::string& reason) const {
    throw Wrong((*this)[key].path_, reason);
  }

 private:
  static std::string list(std::initializer_list<std::string_view> keys) {
    std::string result;
    for (const std::string_view key : keys) {
      result += (result.empty() ? "" : ", ") + std::string(key);
    }
    return result;
  }

  std::string kind() const {
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

  const Json::Value& value_;
  std::string path_;
};

class Parser {
 public:
  explicit Parser(std::string folder) : folder_(std::move(folder)) {}

  Scenario scenario(const Node& root) {
    root.expect_object({"token", "join_delay_ms", "refuse", "participants", "events", "record"});
    Scenario result;
    if (root.has("token")) {
      result.token = root.text("token", "");
    }
    result.join_delay_ms = root.whole("join_delay_ms", 0, 0, kMaxMs);
    if (root.has("refuse")) {
      result.refusal = refusal(root["refuse"]);
    }
    root.each("participants",
              [&](const Node& node) { result.participants.push_back(participant(node)); });
    root.each("events", [&](const Node& node) { result.events.push_back(event(node)); });
    std::stable_sort(result.events.begin(), result.events.end(),
                     [](const auto& a, const auto& b) { return a.at_ms < b.at_ms; });
    if (root.has("record")) {
      result.record_folder = resolve(root.required_text("record"));
      std::error_code status;
      if (std::filesystem::exists(result.record_folder, status) &&
          !std::filesystem::is_directory(result.record_folder, status)) {
        root.refuse("record", "'" + result.record_folder + "' is not a folder");
      }
    }
    return result;
  }

 private:
  std::string resolve(const std::string& path) const {
    return (std::filesystem::path(folder_) / path).lexically_normal().string();
  }

  std::string media_file(const Node& node) const {
    std::string file = resolve(node.required_text("file"));
    std::error_code status;
    if (!std::filesystem::exists(file, status)) {
      node.refuse("file", "there is no file '" + file + "'");
    }
    if (!std::filesystem::is_regular_file(file, status) || access(file.c_str(), R_OK) != 0) {
      node.refuse("file", "cannot read '" + file + "'");
    }
    return file;
  }

  static ScenarioRefusal refusal(const Node& node) {
    node.expect_object({"code", "text"});
    ScenarioRefusal result;
    result.code = code(node, result.code);
    result.text = node.text("text", result.text);
    return result;
  }

  static int code(const Node& node, int otherwise) {
    return static_cast<int>(
        node.whole("code", otherwise, 1, std::numeric_limits<std::int32_t>::max()));
  }

  ScenarioAudio audio(const Node& node) const {
    node.expect_object({"file", "tone_hz", "level", "loop"});
    node.require_one_of("file", "tone_hz");
    ScenarioAudio result;
    if (node.has("file")) {
      result.file = media_file(node);
      if (node.has("level")) {
        node.refuse("level", "belongs to a tone, not to a file");
      }
      result.loop = node.flag("loop", result.loop);
    } else {
      result.tone_hz = node.number("tone_hz", result.tone_hz, 20, 20000);
      result.tone_level = node.number("level", result.tone_level, 0, 1);
      if (node.has("loop")) {
        node.refuse("loop", "belongs to a file, not to a tone");
      }
    }
    return result;
  }

  ScenarioVideo video(const Node& node) const {
    node.expect_object({"file", "testcard", "width", "height", "fps", "loop"});
    node.require_one_of("file", "testcard");
    ScenarioVideo result;
    if (node.has("file")) {
      result.file = media_file(node);
      result.loop = node.flag("loop", result.loop);
    } else {
      if (!node.flag("testcard", true)) {
        node.refuse("testcard", "must be true; leave 'video' out for none");
      }
      if (node.has("loop")) {
        node.refuse("loop", "belongs to a file, not to the test card");
      }
      result.width = 640;
      result.height = 480;
      result.fps = 30;
    }
    result.width = static_cast<int>(node.whole("width", result.width, 2, kMaxVideoSide));
    result.height = static_cast<int>(node.whole("height", result.height, 2, kMaxVideoSide));
    result.fps = static_cast<int>(node.whole("fps", result.fps, 1, kMaxFps));
    return result;
  }

  ScenarioParticipant participant(const Node& node) {
    node.expect_object({"id", "name", "data", "join_at_ms", "leave_at_ms", "audio", "video",
                        "captions", "captions_repeat_ms"});
    ScenarioParticipant result;
    result.id = node.required_text("id");
    if (!ids_.insert(result.id).second) {
      node.refuse("id", "'" + result.id + "' is the id of two participants");
    }
    result.name = node.text("name", result.id);
    result.data = node.text("data", "");
    result.join_at_ms = node.whole("join_at_ms", 0, 0, kMaxMs);
    if (node.has("leave_at_ms")) {
      result.leave_at_ms = node.required_ms("leave_at_ms");
      if (*result.leave_at_ms <= result.join_at_ms) {
        node.refuse("leave_at_ms", "must be after join_at_ms");
      }
    }
    if (node.has("audio")) {
      result.audio = audio(node["audio"]);
    }
    if (node.has("video")) {
      result.video = video(node["video"]);
    }
    captions(node, result);
    return result;
  }

  static void captions(const Node& node, ScenarioParticipant& result) {
    node.each("captions", [&](const Node& caption) {
      caption.expect_object({"at_ms", "text", "final"});
      caption.require("text");
      result.captions.push_back(
          {caption.required_ms("at_ms"), caption.text("text", ""), caption.flag("final", true)});
    });
    std::stable_sort(result.captions.begin(), result.captions.end(),
                     [](const auto& a, const auto& b) { return a.at_ms < b.at_ms; });
    if (node.has("captions_repeat_ms")) {
      result.captions_repeat_ms = node.whole("captions_repeat_ms", 0, 100, kMaxMs);
      if (!result.captions.empty() && result.captions_repeat_ms <= result.captions.back().at_ms) {
        node.refuse("captions_repeat_ms", "must be longer than the last caption's at_ms");
      }
    }
  }

  ScenarioEvent event(const Node& node) const {
    using Kind = ScenarioEvent::Kind;
    static constexpr std::array<std::pair<std::string_view, Kind>, 5> kKinds{
        {{"error", Kind::kError},
         {"disconnect", Kind::kDisconnect},
         {"drop_stream", Kind::kDropStream},
         {"publisher_error", Kind::kPublisherError},
         {"subscriber_error", Kind::kSubscriberError}}};
    node.expect_object({"at_ms", "kind", "code", "text", "participant"});
    ScenarioEvent result;
    result.at_ms = node.required_ms("at_ms");
    const std::string kind = node.required_text("kind");
    const auto* const known = std::find_if(kKinds.begin(), kKinds.end(),
                                           [&](const auto& entry) { return entry.first == kind; });
    if (known == kKinds.end()) {
      node.refuse("kind", "'" + kind +
                              "' is none of error, disconnect, drop_stream, publisher_error, "
                              "subscriber_error");
    }
    result.kind = known->second;

    const bool fails = result.kind != Kind::kDisconnect && result.kind != Kind::kDropStream;
    for (const char* key : {"code", "text"}) {
      if (node.has(key) && !fails) {
        node.refuse(key, "does not go with kind " + kind);
      }
    }
    result.code = code(node, result.code);
    result.text = node.text("text", "Failure from the scenario");
    if (node.has("participant")) {
      if (result.kind != Kind::kDropStream && result.kind != Kind::kSubscriberError) {
        node.refuse("participant", "does not go with kind " + kind);
      }
      result.participant = node.required_text("participant");
      if (!ids_.contains(result.participant)) {
        node.refuse("participant", "there is no participant '" + result.participant + "'");
      }
    } else if (result.kind == Kind::kDropStream) {
      node.require("participant");
    }
    return result;
  }

  const std::string folder_;
  std::set<std::string> ids_;
};

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

Json::Value parse_json(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["allowComments"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
    throw Wrong("", first_syntax_error(errors));
  }
  return root;
}

}  // namespace

std::optional<Scenario> parse_scenario(const std::string& json, const std::string& folder,
                                       const std::string& name, std::string& error) {
  try {
    const Json::Value root = parse_json(json);
    std::error_code status;
    Parser parser(std::filesystem::absolute(folder, status).string());
    Scenario scenario = parser.scenario(Node(root, ""));
    scenario.path = name;
    return scenario;
  } catch (const std::exception& failure) {
    error = "scenario '" + name + "': " + failure.what();
    return std::nullopt;
  }
}

}  // namespace sarnet
