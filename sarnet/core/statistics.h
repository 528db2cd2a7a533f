#pragma once

#include <sarnet/sarnet_statistics.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "core/delivery_queue.h"

namespace sarnet {

// Lateness of periodic calls against an ideal grid of their period. The grid starts with the first
// call, moves forward to a call that comes early, and back when half a second of calls were all
// late, so that a clock that is a little fast or slow, or a single stall, is not booked for ever.
// Any thread; nothing allocates.
class PacingMeter {
 public:
  // One call, `now_us` on any steady clock, carrying `period_us` worth of media.
  void add(std::int64_t now_us, std::int64_t period_us);
  srn_lateness_statistics lateness() const;
  // Periods of the grid without a call.
  std::uint64_t gaps() const;
  // The next call starts a new grid; what was counted stays.
  void restart();
  void clear();

 private:
  // Steps grow by at most 1/32 of the value.
  static constexpr int kStepsPerOctave = 32;
  static constexpr int kOctaves = 27;
  static int step_of(std::int64_t micros);
  static std::int64_t upper_bound_of(int step);
  std::int64_t percentile(double share) const;

  mutable std::mutex mutex_;
  std::array<std::uint64_t, static_cast<std::size_t>(kStepsPerOctave) * kOctaves> histogram_{};
  std::uint64_t calls_ = 0;
  std::uint64_t gaps_ = 0;
  std::int64_t max_ = 0;
  bool running_ = false;
  std::int64_t expected_ = 0;
  std::int64_t least_late_ = 0;
  int window_ = 0;
};

// The library's counters. Any thread.
struct Counters {
  std::atomic<std::uint64_t> capture_periods{0};
  std::atomic<std::uint64_t> capture_frames{0};
  std::atomic<std::uint64_t> capture_silence{0};
  std::atomic<std::uint64_t> capture_underruns{0};
  std::atomic<std::uint64_t> render_periods{0};
  std::atomic<std::uint64_t> render_silent{0};
  std::atomic<std::uint64_t> frames_provided{0};
  std::atomic<std::uint64_t> frames_repeated{0};
  std::atomic<std::uint64_t> frames_black{0};
  std::atomic<std::uint64_t> frames_late{0};
  std::atomic<std::uint64_t> frames_dropped{0};
  DeliveryCounter audio;
  DeliveryCounter pictures;
  DeliveryCounter captions;
  PacingMeter capture_pacing;

  void clear();
};

}  // namespace sarnet
