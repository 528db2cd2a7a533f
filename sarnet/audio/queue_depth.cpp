#include "audio/queue_depth.h"

#include <algorithm>

namespace sarnet {
namespace {

constexpr double kStepMs = 10;       // smallest growth of a target
constexpr double kWorthwhileMs = 5;  // smallest decrease that is made

}  // namespace

void QueueDepth::was_late(double late_ms) {
  const double longest = std::max(kMaxMs, least_ms_);
  target_ms_ = std::min(longest, target_ms_ + std::max(late_ms, kStepMs));
  forget();
}

void QueueDepth::forget() {
  known_ = 0;
  span_seconds_ = 0;
}

bool QueueDepth::observe(double queued_ms, double seconds) {
  lows_[0] = span_seconds_ == 0 ? queued_ms : std::min(lows_[0], queued_ms);
  span_seconds_ += seconds;
  if (span_seconds_ < kHorizonSeconds / kSpans) return false;
  span_seconds_ = 0;
  known_ = std::min(known_ + 1, kSpans);
  const double idle = *std::min_element(lows_.begin(), lows_.begin() + known_) - kMarginMs;
  std::rotate(lows_.begin(), lows_.end() - 1, lows_.end());
  const double shorter = std::max(least_ms_, target_ms_ - idle);
  if (known_ < kSpans || target_ms_ - shorter < kWorthwhileMs) return false;
  target_ms_ = shorter;
  forget();
  return true;
}

}  // namespace sarnet
