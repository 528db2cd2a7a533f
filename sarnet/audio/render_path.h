#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "audio/audio_mixer.h"
#include "audio/drift_buffer.h"
#include "base/audio_format.h"
#include "base/statistics.h"
#include "common/mutex.h"

namespace sarnet {

// The buffer of one subscribed stream before the mix: written by the engine, read by the program's
// render thread. Allocates when one of the two formats changes, not otherwise.
class RenderSource {
 public:
  // Dropped when nothing renders (no `reader` format).
  void write(const AudioFormat& format, std::span<const std::int16_t> samples,
             const std::optional<AudioFormat>& reader);
  // Whether anything but silence was read; false leaves `samples` unspecified.
  bool read(const AudioFormat& format, std::span<std::int16_t> samples);
  double queued_ms() const;

 private:
  std::shared_ptr<DriftBuffer> buffer() const;

  mutable common::Mutex mutex_;
  std::shared_ptr<DriftBuffer> buffer_ GUARDED_BY(mutex_);
};

// The mix of all subscribed audio, read by the program. Any thread; no lock is held while the
// program's code runs.
class RenderPath {
 public:
  explicit RenderPath(Counters& counters);

  void start(const AudioFormat& format);
  // From now on reads return short.
  void stop();
  // Of the device, while it renders.
  std::optional<AudioFormat> format() const;

  void add(std::shared_ptr<RenderSource> source);
  void remove(const RenderSource* source);

  // Returns the frames read: all of them, or none when nothing renders (fewer when stop()
  // intervenes).
  std::size_t read(std::int16_t* buffer, std::size_t frames);
  // The longest queue in front of the mixer.
  std::int64_t delay_us() const;

 private:
  // 10 ms of the largest format: longer reads are mixed in pieces.
  static constexpr std::size_t kMaxBlock = std::size_t{2} * 480;

  Counters& counters_;
  mutable common::Mutex mutex_;
  std::optional<AudioFormat> format_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<RenderSource>> sources_ GUARDED_BY(mutex_);

  common::Mutex mix_mutex_;  // one reader at a time; taken before mutex_
  AudioMixer mixer_ GUARDED_BY(mix_mutex_){kMaxBlock};
  std::vector<std::int16_t> scratch_ GUARDED_BY(mix_mutex_) = std::vector<std::int16_t>(kMaxBlock);
};

}  // namespace sarnet
