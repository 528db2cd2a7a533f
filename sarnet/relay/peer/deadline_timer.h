#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <utility>

#include "relay/peer/peer.h"

namespace sarnet::relay {

// Calls an action when the next deadline of something without a clock has come. The loop's thread
// alone; the action may arm it again.
class DeadlineTimer {
 public:
  using Micros = std::chrono::microseconds;

  // The loop must outlive the timer.
  DeadlineTimer(const MainLoop& loop, std::function<void()> action)
      : loop_(loop), action_(std::move(action)) {}

  // Does nothing when it goes off no later already.
  void arm(std::optional<Micros> due) {
    if (!due || (due_ && *due_ <= *due)) return;
    due_ = due;
    const auto delay = std::chrono::ceil<std::chrono::milliseconds>(*due - steady_now());
    timer_ = MainLoop::Timer(loop_, std::max(delay, std::chrono::milliseconds(0)), [this] {
      due_.reset();
      action_();
    });
  }
  void stop() { timer_.stop(); }

 private:
  const MainLoop& loop_;
  const std::function<void()> action_;
  MainLoop::Timer timer_;
  std::optional<Micros> due_;
};

}  // namespace sarnet::relay
