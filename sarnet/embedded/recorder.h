#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/audio_format.h"
#include "base/picture.h"
#include "common/mutex.h"
#include "plugins/file_plugin.h"

namespace sarnet {

// Records everything the program publishes in a folder: the audio of publication N as audio-N.wav,
// its pictures as video-N.y4m, and events.jsonl, one JSON object a line, in which each publication
// names its files, any loss is counted, and the last line has the event "closed". Each line has the
// time of the event as "time", in UTC, and as "at", in seconds of the machine's monotonic clock.
//
// A file carries no times, and lacks what was never sent. Lines with the event "mark" give the
// arrival time of a position in it (an "audio_frame" or a "picture"): of the first, and of any that
// arrived more than kTolerance away from the time that the earlier marks and the rate predict.
//
// Any thread may call; nothing waits for the disk. The queue is bounded: what arrives while it is
// full is lost and counted. A thread of its own, which the ThreadKeeper joins, writes. It ends
// after close(): what a slow disk has not taken half a second later is lost and counted, too.
class Recorder : public std::enable_shared_from_this<Recorder> {
 public:
  // Null and `error` when the folder cannot be made or written to. Blocks on the disk. Within one
  // process, further recordings into a folder continue the numbers and the event log of the first.
  static std::shared_ptr<Recorder> create(const std::string& folder, std::string& error);

  // `log`: the open event log, closed by the recorder.
  Recorder(const FilePlugin& plugin, std::string folder, int log);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Returns a new publication's number. Its media are written from the first block or picture on.
  int begin_publication(const std::string& name, bool has_audio, bool has_video, int fps);
  void end_publication(int publication);
  void add_audio(int publication, const AudioFormat& format, std::span<const std::int16_t> samples);
  void add_picture(int publication, const PictureRef& picture);
  // Adds a line to the log; the times are added here.
  void log(const char* event, nlohmann::json fields = nlohmann::json::object());
  void close();

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kTolerance{5};
  static constexpr std::chrono::milliseconds kLastWrites{500};

  enum class Kind { kAudio, kPicture, kEnd, kLine };
  static constexpr std::size_t kMaxSamples = 960;
  struct Item {
    Kind kind = Kind::kAudio;
    int publication = 0;
    Clock::time_point came;  // of audio and pictures
    AudioFormat format;
    std::size_t samples = 0;
    std::array<std::int16_t, kMaxSamples> data;
    PictureRef picture;
    std::string line;
  };
  // About ten seconds of audio; of pictures fewer, since they are large.
  static constexpr std::size_t kQueue = 1024;
  static constexpr std::size_t kMaxPictures = 32;

  // Written by the callers, under mutex_:
  struct Loss {
    std::uint64_t audio_frames = 0;
    std::uint64_t pictures = 0;
  };
  // Writer's thread only: when the next item of a file is expected, if there was one.
  using Timeline = std::optional<Clock::time_point>;
  struct Files {
    std::unique_ptr<AudioWriter> audio;
    std::unique_ptr<VideoWriter> video;
    AudioFormat format;
    int width = 0;
    int height = 0;
    int fps = 30;
    std::uint64_t audio_frames = 0;
    std::uint64_t pictures = 0;
    Timeline audio_due;
    Timeline picture_due;
    bool failed = false;
  };

  Item* reserve() REQUIRES(mutex_);
  void mark(Timeline& due, const Item& item, const char* place, std::uint64_t number);
  void run();
  void write(Item& item);
  bool lose(Item& item) REQUIRES(mutex_);
  void write_line(const std::string& line);
  void look_after_log();
  void write_audio(Files& files, const Item& item);
  void write_picture(Files& files, const Item& item);
  void finish(int publication);
  void fail(Files& files, int publication, const std::string& error);
  static std::string line_of(const char* event, nlohmann::json fields,
                             Clock::time_point at = Clock::now());
  int fps_of(int publication);

  const FilePlugin& plugin_;
  const std::string folder_;
  const int log_;
  bool log_failed_ = false;     // of the writer's thread
  std::map<int, Files> files_;  // of the writer's thread
  std::uint64_t lines_lost_ GUARDED_BY(mutex_) = 0;

  common::Mutex mutex_;
  std::condition_variable changed_;
  std::vector<Item> queue_ GUARDED_BY(mutex_) = std::vector<Item>(kQueue);
  std::size_t first_ GUARDED_BY(mutex_) = 0;
  std::size_t size_ GUARDED_BY(mutex_) = 0;
  std::size_t pictures_queued_ GUARDED_BY(mutex_) = 0;
  std::map<int, Loss> losses_ GUARDED_BY(mutex_);
  std::map<int, int> fps_ GUARDED_BY(mutex_);
  bool closed_ GUARDED_BY(mutex_) = false;
  Clock::time_point closed_at_ GUARDED_BY(mutex_);
};

}  // namespace sarnet
