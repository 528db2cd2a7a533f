#include "relay/media/send/stamp_clock.h"

#include <algorithm>
#include <cstdlib>

namespace sarnet::relay {

namespace {
constexpr std::int64_t kSecondNs = 1'000'000'000;
// The least that two stamps differ by, more than the encoders' and the network's clocks resolve.
constexpr std::int64_t kLeastStepNs = 1'000'000;
}  // namespace

std::int64_t StampClock::stamp(std::int64_t now_ns, std::int64_t ticks) {
  std::int64_t stamp = origin_ns_ + ticks_ / rate_ * kSecondNs + ticks_ % rate_ * kSecondNs / rate_;
  restarted_ = !running_ || std::abs(stamp - now_ns) > kToleranceNs;
  if (restarted_) {
    stamp = running_ ? std::max(now_ns, last_ns_ + kLeastStepNs) : now_ns;
    origin_ns_ = stamp;
    ticks_ = 0;
    running_ = true;
  }
  ticks_ += ticks;
  last_ns_ = stamp;
  return stamp;
}

}  // namespace sarnet::relay
