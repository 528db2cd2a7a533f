extern "C" {
#include <libavutil/mem.h>
}

#include <cstddef>

#include "files/audio_file_reader.h"
#include "files/file_writers.h"
#include "files/video_file_reader.h"
#include "plugins/file_plugin.h"
#include "plugins/file_plugin_entry.h"

namespace sarnet {
namespace {

// Returns `object` if it opened, else its error.
template <class Interface, class Object>
std::unique_ptr<Interface> opened(std::unique_ptr<Object> object, std::string& error) {
  if (object->open()) return object;
  error = object->error();
  return nullptr;
}

class FfmpegPlugin final : public FilePlugin {
 public:
  std::unique_ptr<AudioReader> open_audio(const std::string& path, const AudioFormat& format,
                                          bool loop, const Interrupted& interrupted,
                                          std::string& error) const override {
    return opened<AudioReader>(std::make_unique<AudioFileReader>(path, format, loop, interrupted),
                               error);
  }

  std::unique_ptr<VideoReader> open_video(const std::string& path, int width, int height,
                                          double fps, bool loop, const Interrupted& interrupted,
                                          std::string& error) const override {
    return opened<VideoReader>(
        std::make_unique<VideoFileReader>(path, width, height, fps, loop, interrupted), error);
  }

  std::unique_ptr<AudioWriter> create_audio(const std::string& path, const AudioFormat& format,
                                            std::string& error) const override {
    return opened<AudioWriter>(std::make_unique<WavWriter>(path, format), error);
  }

  std::unique_ptr<VideoWriter> create_video(const std::string& path, int width, int height, int fps,
                                            std::string& error) const override {
    return opened<VideoWriter>(std::make_unique<Y4mWriter>(path, width, height, fps), error);
  }
};

}  // namespace
}  // namespace sarnet

extern "C" __attribute__((visibility("default"))) const sarnet::FilePlugin* sarnet_files_entry(
    int version) {
  if (version != sarnet::kFilePluginVersion) return nullptr;
  // Failures are returned as error texts; a program that chose another level keeps it.
  if (av_log_get_level() == AV_LOG_INFO) av_log_set_level(AV_LOG_FATAL);
  // FFmpeg clears as much memory as a header claims before it reads on: seconds for the two
  // gigabytes that it allows. Our largest picture fits. Applies to the whole process.
  av_max_alloc(std::size_t{320} << 20);
  static const sarnet::FfmpegPlugin plugin;
  return &plugin;
}
