#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "audio/drift_buffer.h"
#include "base/audio_format.h"
#include "base/engine.h"
#include "base/statistics.h"
#include "common/mutex.h"

namespace sarnet {

// Passes captured audio from the program to all published streams: unchanged to
// PublishedStream::on_captured_audio, and on the session's 10 ms clock, at 48 kHz, to on_audio. The
// program's clock may differ from the session's by 2.5 %. Any thread; no lock is held while a slot
// of the audio device runs; nothing allocates while audio flows.
//
// The clock ticks on a thread of its own, which the ThreadKeeper joins, while the device captures
// and something is published. It begins with the program's first write and stays just behind the
// writes, so that little has to be queued: 12 ms as a rule.
class CapturePath {
 public:
  explicit CapturePath(Counters& counters);

  // The device starts and stops capturing. start() and add() throw std::system_error when no thread
  // can be made, and then change nothing.
  void start(const AudioFormat& format);
  void stop();

  void add(std::shared_ptr<PublishedStream> stream, bool stereo);
  void remove(const PublishedStream* stream);

  // Dropped unless started. Returns at once.
  void write(const std::int16_t* samples, std::size_t frames);

 private:
  struct Run;
  struct Target {
    std::shared_ptr<PublishedStream> stream;
    bool stereo = false;
  };

  static void end(const std::shared_ptr<Run>& run);
  std::shared_ptr<Run> launch(const AudioFormat& format) REQUIRES(mutex_);
  void pump(Run& run);
  void give(std::span<const std::int16_t> stereo, std::span<const std::int16_t> mono);

  Counters& counters_;
  common::Mutex mutex_;
  std::optional<AudioFormat> format_ GUARDED_BY(mutex_);  // of the device, while it captures
  std::shared_ptr<Run> run_ GUARDED_BY(mutex_);           // while there are targets, too
  std::vector<Target> targets_ GUARDED_BY(mutex_);
};

}  // namespace sarnet
