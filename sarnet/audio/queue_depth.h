#pragma once

#include <array>
#include <cstddef>

namespace sarnet {

// How much sound to keep queued for a writer that comes in bursts: as little as was asked for while
// it keeps time, as much as it was late when it does not, at most kMaxMs. Deeper at once, shallower
// when part of the queue lay idle for kHorizonSeconds. Times in milliseconds of sound; no clock and
// no thread of its own.
class QueueDepth {
 public:
  static constexpr double kMaxMs =
      150;  // a second more would be heard as an answer that comes late
  static constexpr double kHorizonSeconds = 4;
  // Kept below what was ever used: a block of the writer's.
  static constexpr double kMarginMs = 10;

  explicit QueueDepth(double least_ms) : least_ms_(least_ms), target_ms_(least_ms) {}

  double target_ms() const { return target_ms_; }

  // The queue ran dry, and the writer went on `late_ms` later with all that it owed.
  void was_late(double late_ms);
  // One read of `seconds`, after which `queued_ms` were left. Whether the target has changed.
  bool observe(double queued_ms, double seconds);

 private:
  static constexpr std::size_t kSpans = 8;

  void forget();

  const double least_ms_;
  double target_ms_;
  // The least that was queued in each eighth of the horizon, the present one first.
  std::array<double, kSpans> lows_{};
  std::size_t known_ = 0;  // spans that are full
  double span_seconds_ = 0;
};

}  // namespace sarnet
