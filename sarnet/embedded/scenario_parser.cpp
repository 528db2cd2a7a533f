#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <limits>
#include <set>
#include <string_view>
#include <utility>

#include "base/regular_file.h"
#include "embedded/json_node.h"
#include "embedded/scenario.h"

namespace sarnet {
namespace {

constexpr std::int64_t kMaxMs = 30LL * 24 * 3600 * 1000;
constexpr int kMaxVideoSide = 4096;
constexpr int kMaxFps = 120;

std::int64_t required_ms(const JsonNode& node, const char* key) {
  node.require(key);
  return node.whole(key, 0, 0, kMaxMs);
}

class Parser {
 public:
  Parser(std::string folder, const std::string& name) : folder_(std::move(folder)) {
    result_.path = name;
  }

  Scenario scenario(const JsonNode& root) {
    root.expect_object({"token", "join_delay_ms", "refuse", "participants", "events", "record"});
    Scenario& result = result_;
    if (root.has("token")) result.token = root.text("token", "");
    result.join_delay_ms = root.whole("join_delay_ms", 0, 0, kMaxMs);
    if (root.has("refuse")) result.refusal = refusal(root["refuse"]);
    root.each("participants",
              [&](const JsonNode& node) { result.participants.push_back(participant(node)); });
    root.each("events", [&](const JsonNode& node) { result.events.push_back(event(node)); });
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
    return std::move(result_);
  }

 private:
  std::string resolve(const std::string& path) const {
    return (std::filesystem::path(folder_) / path).lexically_normal().string();
  }

  std::string media_file(const JsonNode& node) const {
    std::string file = resolve(node.required_text("file"));
    std::string reason;
    const int opened = open_regular(file, reason);
    if (opened < 0) node.refuse("file", "cannot read '" + file + "': " + reason);
    close(opened);
    return file;
  }

  static ScenarioRefusal refusal(const JsonNode& node) {
    node.expect_object({"code", "text"});
    ScenarioRefusal result;
    result.code = code(node, result.code);
    result.text = node.text("text", result.text);
    return result;
  }

  static int code(const JsonNode& node, int otherwise) {
    return static_cast<int>(
        node.whole("code", otherwise, 1, std::numeric_limits<std::int32_t>::max()));
  }

  ScenarioAudio audio(const JsonNode& node) const {
    node.expect_object({"file", "tone_hz", "level", "loop"});
    node.require_one_of("file", "tone_hz");
    ScenarioAudio result;
    if (node.has("file")) {
      result.file = media_file(node);
      result.file_key = result_.place_of(node.place_of("file"));
      if (node.has("level")) node.refuse("level", "belongs to a tone, not to a file");
      result.loop = node.flag("loop", result.loop);
    } else {
      result.tone_hz = node.number("tone_hz", result.tone_hz, 20, 20000);
      result.tone_level = node.number("level", result.tone_level, 0, 1);
      if (node.has("loop")) node.refuse("loop", "belongs to a file, not to a tone");
    }
    return result;
  }

  ScenarioVideo video(const JsonNode& node) const {
    node.expect_object({"file", "testcard", "width", "height", "fps", "loop"});
    node.require_one_of("file", "testcard");
    ScenarioVideo result;
    if (node.has("file")) {
      result.file = media_file(node);
      result.file_key = result_.place_of(node.place_of("file"));
      result.loop = node.flag("loop", result.loop);
    } else {
      if (!node.flag("testcard", true)) {
        node.refuse("testcard", "must be true; leave 'video' out for none");
      }
      if (node.has("loop")) node.refuse("loop", "belongs to a file, not to the test card");
      result.width = 640;
      result.height = 480;
      result.fps = 30;
    }
    result.width = static_cast<int>(node.whole("width", result.width, 2, kMaxVideoSide));
    result.height = static_cast<int>(node.whole("height", result.height, 2, kMaxVideoSide));
    result.fps = static_cast<int>(node.whole("fps", result.fps, 1, kMaxFps));
    return result;
  }

  ScenarioParticipant participant(const JsonNode& node) {
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
      result.leave_at_ms = required_ms(node, "leave_at_ms");
      if (*result.leave_at_ms <= result.join_at_ms) {
        node.refuse("leave_at_ms", "must be after join_at_ms");
      }
    }
    if (node.has("audio")) result.audio = audio(node["audio"]);
    if (node.has("video")) result.video = video(node["video"]);
    captions(node, result);
    return result;
  }

  static void captions(const JsonNode& node, ScenarioParticipant& result) {
    node.each("captions", [&](const JsonNode& caption) {
      caption.expect_object({"at_ms", "text", "final"});
      caption.require("text");
      result.captions.push_back(
          {required_ms(caption, "at_ms"), caption.text("text", ""), caption.flag("final", true)});
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

  ScenarioEvent event(const JsonNode& node) const {
    using Kind = ScenarioEvent::Kind;
    static constexpr std::array<std::pair<std::string_view, Kind>, 5> kKinds{
        {{"error", Kind::kError},
         {"disconnect", Kind::kDisconnect},
         {"drop_stream", Kind::kDropStream},
         {"publisher_error", Kind::kPublisherError},
         {"subscriber_error", Kind::kSubscriberError}}};
    node.expect_object({"at_ms", "kind", "code", "text", "participant"});
    ScenarioEvent result;
    result.at_ms = required_ms(node, "at_ms");
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
      if (node.has(key) && !fails) node.refuse(key, "does not go with kind " + kind);
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
  Scenario result_;
  std::set<std::string> ids_;
};

}  // namespace

std::optional<Scenario> parse_scenario(const std::string& json, const std::string& folder,
                                       const std::string& name, std::string& error) {
  try {
    const nlohmann::json root = parse_json(json);
    std::error_code status;
    Parser parser(std::filesystem::absolute(folder, status).string(), name);
    return parser.scenario(JsonNode(root, ""));
  } catch (const std::exception& failure) {
    error = "scenario '" + printable_text(name) + "': " + failure.what();
    return std::nullopt;
  }
}

}  // namespace sarnet
