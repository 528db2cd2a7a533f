#include "embedded/scenario.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

namespace sarnet {
namespace {

// Scripts are written by hand; a larger file was named by mistake, e.g. a recording.
constexpr std::uintmax_t kMaxScenarioBytes = 16U << 20U;

}  // namespace

std::string Scenario::place_of(const std::string& key) const {
  return "scenario '" + path + "': " + key;
}

Scenario default_scenario() {
  ScenarioParticipant companion;
  companion.id = "companion";
  companion.name = "Companion";
  companion.data = "A test card, a tone and captions";
  companion.audio =
      ScenarioAudio{.file = {}, .file_key = {}, .tone_hz = 440, .tone_level = 0.1, .loop = true};
  companion.video = ScenarioVideo{
      .file = {}, .file_key = {}, .width = 640, .height = 480, .fps = 30, .loop = true};
  companion.captions = {{500, "Hello,", false},
                        {1000, "Hello, this is", false},
                        {1500, "Hello, this is your companion.", true},
                        {4000, "The tone is an A,", false},
                        {4500, "The tone is an A, 440 hertz.", true}};
  companion.captions_repeat_ms = 8000;

  Scenario scenario;
  scenario.participants.push_back(std::move(companion));
  return scenario;
}

std::optional<Scenario> load_scenario(const std::string& path, std::string& error) {
  const auto refuse = [&](const std::string& reason) {
    error = "cannot read the scenario '" + path + "': " + reason;
    return std::nullopt;
  };
  std::error_code status;
  const std::filesystem::path file = std::filesystem::absolute(path, status);
  if (!std::filesystem::is_regular_file(file, status)) {
    return refuse(status ? status.message() : "not a regular file");
  }
  const std::uintmax_t size = std::filesystem::file_size(file, status);
  if (status || size > kMaxScenarioBytes) {
    return refuse(status ? status.message() : "larger than 16 MiB");
  }
  std::ifstream stream(file, std::ios::binary);
  std::string text(static_cast<std::size_t>(size), '\0');
  if (!stream || !stream.read(text.data(), static_cast<std::streamsize>(size))) {
    return refuse(std::generic_category().message(errno != 0 ? errno : EIO));
  }
  return parse_scenario(text, file.parent_path().string(), path, error);
}

}  // namespace sarnet
