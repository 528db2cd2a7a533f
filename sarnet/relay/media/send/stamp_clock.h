#pragma once

#include <cstdint>

namespace sarnet::relay {

// Time stamps for media that come in equal units on a jittery thread: counted from one origin, so
// that the jitter does not reach the other side, whose player would take it for the network's. One
// thread at a time.
class StampClock {
 public:
  // How far the count may be from the clock before it starts anew.
  static constexpr std::int64_t kToleranceNs = 100'000'000;

  // `rate` in ticks per second.
  explicit StampClock(int rate) : rate_(rate) {}

  // The stamp of a unit of `ticks` that came at `now_ns`. Stamps always grow, also when the units
  // come faster than their rate says: then they stand up to the tolerance in the future.
  std::int64_t stamp(std::int64_t now_ns, std::int64_t ticks);

  // Whether the last stamp started a new count.
  bool restarted() const { return restarted_; }

 private:
  const std::int64_t rate_;
  std::int64_t origin_ns_ = 0;
  std::int64_t ticks_ = 0;  // since the origin
  std::int64_t last_ns_ = 0;
  bool running_ = false;
  bool restarted_ = false;
};

}  // namespace sarnet::relay
