#pragma once

#include <array>
#include <cstddef>

namespace sarnet {

// How much sound to keep queued for a bursty writer: the requested minimum while it is punctual, as
// much as its lateness when it is not, at most kMaxMs. Grows at once, shrinks when part of the
// queue lay idle for kHorizonSeconds. Times in milliseconds of sound; no clock and no thread of its
// own.
class QueueDepth {
 public:
  static constexpr double kMaxMs = 150;  // much more would be heard as a late answer
  static constexpr double kHorizonSeconds = 4;
  // Kept below the lowest level: one block of the writer.
  static constexpr double kMarginMs = 10;

  explicit QueueDepth(double least_ms) : least_ms_(least_ms), target_ms_(least_ms) {}

  double target_ms() const { return target_ms_; }

  // The queue ran dry, and the writer resumed `late_ms` later with all that was due.
  void was_late(double late_ms);
  // One read of `seconds`, after which `queued_ms` were left. True when the target has changed.
  bool observe(double queued_ms, double seconds);

 private:
  static constexpr std::size_t kSpans = 8;

  void forget();

  const double least_ms_;
  double target_ms_;
  // The least that was queued in each eighth of the horizon, the current one first.
  std::array<double, kSpans> lows_{};
  std::size_t known_ = 0;  // spans that are full
  double span_seconds_ = 0;
};

}  // namespace sarnet
