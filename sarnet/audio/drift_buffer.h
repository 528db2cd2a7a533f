#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "audio/audio_resampler.h"
#include "audio/clock_controller.h"
#include "audio/fades.h"
#include "audio/frame_ring.h"
#include "audio/queue_depth.h"
#include "base/audio_format.h"

namespace sarnet {

// Carries audio from a writer with one clock to a reader with another, and from the writer's format
// to the reader's. Differences of the clocks up to 2.5 % are absorbed by stretching or shrinking
// the sound a little, without audible steps; the queued delay stays near a target that follows the
// writer's jitter.
//
// Threads: write() on one thread at a time, read() on one thread at a time, both at once; the
// counters on any thread. Neither waits, locks nor allocates. The constructor allocates everything
// and throws std::invalid_argument for an invalid format and std::bad_alloc.
//
// Behaviour, in the reader's view:
//  - It gives silence until the target is queued ("priming"), then plays.
//  - When the queue runs dry it fades what is left into silence, counts an underrun and primes
//    anew. A writer that stops is no error: one underrun, then silence. A writer that was only late
//    raises the target by its lateness, up to QueueDepth::kMaxMs; once it is punctual again the
//    target returns to `target_ms` within ten seconds.
//  - When more than `max_ms` is queued, the oldest frames are dropped and counted, and the joint is
//    cross-faded.
//  - As long as both clocks agree (the mean queue stays within ClockController::kDeadBandMs of the
//    target) and the rates are equal, samples pass unchanged. After a stretch they do so again once
//    the clocks have agreed for ClockController::kCalmSeconds.
class DriftBuffer {
 public:
  static constexpr int kDefaultTargetMs = 40;
  static constexpr int kDefaultMaxMs = 200;

  struct Counters {
    std::uint64_t underruns = 0;       // times that the queue ran dry while playing
    std::uint64_t frames_dropped = 0;  // writer's frames lost to overflow
    std::uint64_t frames_silent = 0;   // reader's frames that were silence
    double queued_ms = 0;              // audio queued after the last read
    double correction = 1;             // current stretch, 1 = none
  };

  DriftBuffer(AudioFormat writer, AudioFormat reader, int target_ms = kDefaultTargetMs,
              int max_ms = kDefaultMaxMs);

  const AudioFormat& writer_format() const { return writer_; }
  const AudioFormat& reader_format() const { return reader_; }

  // Queues a whole number of frames in the writer's format. When the reader is gone and the queue
  // is full, the frames are dropped and counted, and the reader starts anew when it returns.
  void write(std::span<const std::int16_t> samples);

  // Fills `samples` (a whole number of frames in the reader's format, at most 100 ms) with audio or
  // silence. Meant to be called every 10 ms. Returns whether any of it is audio.
  bool read(std::span<std::int16_t> samples);

  Counters counters() const;

 private:
  enum class Mode { kPriming, kExact, kStretching };

  // All below belongs to the reader, except the ring's writing side and the counters.
  std::size_t pop(std::span<std::int16_t> frames);
  bool read_block(std::span<std::int16_t> samples);
  bool primed(std::size_t frames);
  void start_playing();
  bool only_late() const;
  void follow_target();
  void stop_playing();
  void drop_oldest(std::size_t frames);
  std::size_t play_exact(std::span<std::int16_t> samples);
  std::size_t play_stretched(std::span<std::int16_t> samples);
  void begin_stretching(std::span<std::int16_t> samples);
  bool may_end_stretching(std::size_t frames) const;
  void end_stretching(std::span<std::int16_t> samples);
  void remember(std::size_t frames);
  void steer(std::size_t frames);
  double queued_ms() const;
  std::size_t target_frames() const;

  const AudioFormat writer_;
  const AudioFormat reader_;
  const std::size_t max_frames_;   // of the writer, as are all queue lengths
  const std::size_t fade_frames_;  // of the reader

  FrameRing ring_;
  std::atomic<bool> overflowed_{false};  // the writer met a full ring: what it holds is stale

  Mode mode_ = Mode::kPriming;
  QueueDepth depth_;
  ClockController clock_;
  AudioResampler resampler_;
  Fader fader_;
  CrossFade joint_;                    // where the oldest frames were dropped
  std::vector<std::int16_t> staging_;  // writer's frames on their way to the reader
  std::vector<std::int16_t> history_;  // the last frames that were taken
  std::vector<std::int16_t> scratch_;  // reader's frames while the interpolator starts or ends
  std::size_t history_frames_ = 0;     // valid in history_
  std::uint64_t written_seen_ = 0;
  std::size_t idle_frames_ = 0;  // reader's frames since the writer last came, while priming
  std::uint64_t written_at_underrun_ = 0;
  std::size_t silent_frames_ = 0;  // reader's frames since the underrun
  bool played_before_ = false;

  std::atomic<std::uint64_t> underruns_{0};
  std::atomic<std::uint64_t> frames_dropped_{0};
  std::atomic<std::uint64_t> frames_silent_{0};
  std::atomic<double> last_queued_ms_{0};
  std::atomic<double> last_correction_{1};
};

}  // namespace sarnet
