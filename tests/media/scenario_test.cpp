#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "embedded/scenario.h"

namespace sarnet {
namespace {

namespace fs = std::filesystem;

class ScenarioTest : public testing::Test {
 protected:
  ScenarioTest() {
    std::string pattern = (fs::temp_directory_path() / "sarnet_scenario_XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
    std::ofstream(folder_ / "voice.wav") << "sound";
  }
  ~ScenarioTest() override { fs::remove_all(folder_); }

  std::optional<Scenario> parse(const std::string& json) {
    error_.clear();
    return parse_scenario(json, folder_.string(), "play.json", error_);
  }

  fs::path folder_;
  std::string error_;
};

TEST_F(ScenarioTest, ReadsEveryKey) {
  const auto scenario = parse(R"({
    // a comment
    "token": "secret", "join_delay_ms": 250, "refuse": {"code": 1004, "text": "no"},
    "participants": [
      {"id": "a", "name": "Alice", "data": "{\"role\": 1}", "join_at_ms": 100, "leave_at_ms": 9000,
       "audio": {"file": "voice.wav", "loop": false},
       "video": {"testcard": true, "width": 321, "height": 241, "fps": 15},
       "captions": [{"at_ms": 700, "text": "later"}, {"at_ms": 5, "text": "s\u00f6", "final": false}],
       "captions_repeat_ms": 1000},
      {"id": "b", "audio": {"tone_hz": 1000, "level": 0.5}, "video": {"file": "./voice.wav"}},
      {"id": "c"}],
    "events": [{"at_ms": 900, "kind": "disconnect"},
               {"at_ms": 10, "kind": "error", "code": 1022, "text": "gone"},
               {"at_ms": 20, "kind": "drop_stream", "participant": "a"},
               {"at_ms": 30, "kind": "subscriber_error"}, {"at_ms": 40, "kind": "publisher_error"}],
    "record": "out"
  })");
  ASSERT_TRUE(scenario) << error_;
  EXPECT_EQ(scenario->token, "secret");
  EXPECT_EQ(scenario->join_delay_ms, 250);
  ASSERT_TRUE(scenario->refusal);
  EXPECT_EQ(scenario->refusal->code, 1004);
  EXPECT_EQ(scenario->record_folder, (folder_ / "out").string());

  ASSERT_EQ(scenario->participants.size(), 3U);
  const auto& alice = scenario->participants[0];
  EXPECT_EQ(alice.name + alice.data, "Alice{\"role\": 1}");
  EXPECT_EQ(alice.join_at_ms, 100);
  EXPECT_EQ(alice.leave_at_ms, 9000);
  EXPECT_EQ(alice.audio->file, (folder_ / "voice.wav").string());
  EXPECT_FALSE(alice.audio->loop);
  EXPECT_EQ(std::tuple(alice.video->width, alice.video->height, alice.video->fps),
            std::tuple(321, 241, 15));
  ASSERT_EQ(alice.captions.size(), 2U);  // in the order of their times
  EXPECT_EQ(alice.captions[0].text, "s\xc3\xb6");
  EXPECT_TRUE(!alice.captions[0].final_text && alice.captions[1].final_text);
  EXPECT_EQ(alice.captions_repeat_ms, 1000);
  const auto& bob = scenario->participants[1];
  EXPECT_EQ(bob.name, "b");
  EXPECT_EQ(bob.audio->tone_hz + bob.audio->tone_level, 1000.5);
  EXPECT_EQ(bob.video->file, (folder_ / "voice.wav").string());
  EXPECT_FALSE(scenario->participants[2].publishes());

  using Kind = ScenarioEvent::Kind;
  std::vector<Kind> kinds;
  for (const auto& event : scenario->events) kinds.push_back(event.kind);
  EXPECT_EQ(kinds, (std::vector<Kind>{Kind::kError, Kind::kDropStream, Kind::kSubscriberError,
                                      Kind::kPublisherError, Kind::kDisconnect}));
  EXPECT_EQ(scenario->events[0].code, 1022);
  EXPECT_EQ(scenario->events[0].text, "gone");
  EXPECT_EQ(scenario->events[1].participant, "a");
}

TEST_F(ScenarioTest, ErrorsNameTheFileTheKeyAndTheReason) {
  struct Row {
    const char* json;
    const char* error;  // behind the file's name
  };
  const Row rows[] = {
      {"{\n  \"token\": \"x\"\n  \"record\": \"y\"\n}",
       "line 3, column 10: syntax error while parsing object"},
      {"", "line 1, column 1"},
      {R"({"participants": [{}, {"id": "a", "id": "b"}]})", "participants[1].id: is there twice"},
      {R"({"events": [{"a\n\u0000": 1}]})", "events[0].a\uFFFD\uFFFD: unknown key"},
      {R"({"join_delay_ms": 1e999})", "join_delay_ms: number overflow"},
      {R"({"join_delay_ms": 18446744073709551615})", "join_delay_ms: expected a whole number"},
      {"{\"record\": \"\xc0\x80\"}",
       "line 1, column 13: syntax error while parsing value - invalid "
       "string: ill-formed UTF-8 byte"},
      {"[]", "expected an object, found a list"},
      {R"({"tokens": "a"})", "tokens: unknown key; known here: token, join_delay_ms"},
      {R"({"token": "\u0000"})", "token: holds a zero character"},
      {R"({"join_delay_ms": -1})", "join_delay_ms: must be from 0 to"},
      {R"({"join_delay_ms": 1.5})", "join_delay_ms: expected a whole number, found the number 1.5"},
      {R"({"refuse": {"code": 0}})", "refuse.code: must be from 1"},
      {R"({"participants": [{}]})", "participants[0].id: is missing"},
      {R"({"participants": [{"id": "a"}, {"id": "a"}]})",
       "participants[1].id: 'a' is the id of two"},
      {R"({"participants": [{"id": "a", "join_at_ms": 5, "leave_at_ms": 5}]})",
       "participants[0].leave_at_ms: must be after join_at_ms"},
      {R"({"participants": [{"id": "a", "audio": {}}]})",
       "participants[0].audio: needs either 'file' or 'tone_hz'"},
      {R"({"participants": [{"id": "a", "audio": {"file": "nope.wav"}}]})", "/nope.wav'"},
      {R"({"participants": [{"id": "a", "video": {"testcard": true, "file": "voice.wav"}}]})",
       "participants[0].video: needs either 'file' or 'testcard', not both"},
      {R"({"participants": [{"id": "a", "video": {"testcard": true, "fps": 0}}]})",
       "participants[0].video.fps: must be from 1 to 120, is 0"},
      {R"({"participants": [{"id": "a", "captions": [{"at": 1, "text": "x"}]}]})",
       "participants[0].captions[0].at: unknown key"},
      {R"({"participants": [{"id": "a", "captions_repeat_ms": 500,
           "captions": [{"at_ms": 500, "text": "x"}]}]})",
       "participants[0].captions_repeat_ms: must be longer"},
      {R"({"events": [{"at_ms": 1, "kind": "explode"}]})", "events[0].kind: 'explode' is none of"},
      {R"({"events": [{"at_ms": 1, "kind": "disconnect", "code": 5}]})",
       "events[0].code: does not go with kind disconnect"},
      {R"({"events": [{"at_ms": 1, "kind": "subscriber_error", "participant": "x"}]})",
       "events[0].participant: there is no participant 'x'"},
      {R"({"record": "voice.wav"})", "is not a folder"},
  };
  for (const Row& row : rows) {
    EXPECT_FALSE(parse(row.json)) << row.json;
    EXPECT_EQ(error_.rfind("scenario 'play.json': ", 0), 0U) << error_;
    EXPECT_NE(error_.find(row.error), std::string::npos) << row.json << "\n" << error_;
    EXPECT_TRUE(
        std::all_of(error_.begin(), error_.end(), [](unsigned char c) { return c >= ' '; }));
  }
  const std::string deep(100'000, '[');
  for (const std::string& nested : {deep, "{\"token\": " + deep}) {
    EXPECT_FALSE(parse(nested));
    EXPECT_NE(error_.find("[0]: is nested deeper than 32 levels"), std::string::npos) << error_;
  }
  EXPECT_TRUE(parse(R"({"join_delay_ms": 250.0})")) << error_;
}

TEST_F(ScenarioTest, LoadsFromAFileAndResolvesPathsAgainstItsFolder) {
  const std::string file = (folder_ / "play.json").string();
  std::ofstream(file) << R"({"participants": [{"id": "a", "audio": {"file": "voice.wav"}}]})";
  const auto scenario = load_scenario(file, error_);
  ASSERT_TRUE(scenario) << error_;
  EXPECT_EQ(scenario->participants[0].audio->file, (folder_ / "voice.wav").string());
  for (const std::string bad : {"/nowhere/play.json", "/", ""}) {
    EXPECT_FALSE(load_scenario(bad, error_));
    EXPECT_NE(error_.find("'" + bad + "': "), std::string::npos) << error_;
  }
}

}  // namespace
}  // namespace sarnet
