#pragma once

#include <optional>
#include <string>

// The settings of a session as a program gives them. Absent ones keep the core's defaults.
namespace models {

struct SessionAudioSettings {
  int sample_rate = 48000;
  int number_of_channels = 2;
};

struct VideoResolution {
  int width = 0;
  int height = 0;
};

struct SessionVideoPublisherSettings {
  VideoResolution resolution;
  int fps = 30;
  std::string format = "YUV420P";  // any word
};

struct SessionAVSettings {
  std::optional<SessionAudioSettings> audio_publisher;
  std::optional<SessionAudioSettings> audio_subscribers_mix;
  std::optional<SessionVideoPublisherSettings> video_publisher;
};

struct LoggingSettings {
  std::string level;  // any word
};

struct SessionSettings {
  bool enable_migration = false;
  std::optional<SessionAVSettings> av;
  std::optional<LoggingSettings> logging;
};

}  // namespace models
