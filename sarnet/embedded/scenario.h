#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sarnet {

// What the embedded engine plays: a script of one session, read from a JSON file or built in. Plain
// records; docs/scenarios.md is the users' page. Times are milliseconds, counted from the moment
// the session is joined unless said otherwise. Paths are absolute.

struct ScenarioAudio {
  std::string file;          // empty: a tone
  std::string file_key;      // for messages: "scenario 'talk.json': participants[0].audio.file"
  double tone_hz = 440;      // with no file
  double tone_level = 0.25;  // 0 to 1 of full scale
  bool loop = true;
};

struct ScenarioVideo {
  std::string file;  // empty: the moving test card
  std::string file_key;
  int width = 0;  // pixels; 0: the file's own; never 0 for the test card
  int height = 0;
  int fps = 0;  // 0: the file's own; never 0 for the test card
  bool loop = true;
};

struct ScenarioCaption {
  std::int64_t at_ms = 0;  // from the participant's join
  std::string text;
  bool final_text = true;
};

struct ScenarioParticipant {
  std::string id;    // unique in the scenario
  std::string name;  // of the stream
  std::string data;  // of the connection
  std::int64_t join_at_ms = 0;
  std::optional<std::int64_t> leave_at_ms;  // unset: stays
  std::optional<ScenarioAudio> audio;       // unset: publishes none
  std::optional<ScenarioVideo> video;       // unset: publishes none
  std::vector<ScenarioCaption> captions;    // in order of time
  std::int64_t captions_repeat_ms = 0;      // the list starts again after this long; 0: once

  bool publishes() const { return audio || video || !captions.empty(); }
};

struct ScenarioEvent {
  enum class Kind {
    kError,            // the session fails with code and text
    kDisconnect,       // the server ends the session
    kDropStream,       // the stream of `participant` goes, its connection stays
    kPublisherError,   // every publisher of the session fails with code and text
    kSubscriberError,  // subscribers of `participant` (empty: all) fail with code and text
  };
  Kind kind = Kind::kError;
  std::int64_t at_ms = 0;
  int code = 2000;
  std::string text;
  std::string participant;  // an id of the scenario
};

struct ScenarioRefusal {
  int code = 1023;
  std::string text = "Connection refused by the scenario";
};

struct Scenario {
  std::string path;                        // the file, for messages; empty for the built-in one
  std::optional<std::string> token;        // the only token accepted; unset: any
  std::int64_t join_delay_ms = 0;          // from the call to on_connected
  std::optional<ScenarioRefusal> refusal;  // every join fails with it
  std::vector<ScenarioParticipant> participants;
  std::vector<ScenarioEvent> events;  // in order of time
  std::string record_folder;          // empty: nothing is recorded

  // "scenario 'talk.json': KEY"
  std::string place_of(const std::string& key) const;
};

// One companion with a moving test card (640x480 at 30 fps), a tone and captions that repeat.
Scenario default_scenario();

// Reads and checks a scenario file; blocks on the disk. Nothing on failure: `error` then names the
// file, the key's path (or the line) and the reason, in one line. Media files must exist; the
// folder to record into is only named here, and made by the recorder.
std::optional<Scenario> load_scenario(const std::string& path, std::string& error);

// The same from a text. Relative paths are resolved against `folder`; errors call the file `name`.
std::optional<Scenario> parse_scenario(const std::string& json, const std::string& folder,
                                       const std::string& name, std::string& error);

}  // namespace sarnet
