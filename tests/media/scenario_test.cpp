#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

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
  EXPECT_TRUE(parse("{\"join_delay_ms\": 250.0 // a comment\n}")) << error_;
}

}  // namespace
}  // namespace sarnet
