#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

/// Long enough for any machine that makes progress at all.
inline constexpr std::chrono::seconds kDeadline(20);

/// A count that threads raise and a test waits for.
class Counter {
 public:
  void add() {
    const std::lock_guard lock(mutex_);
    ++value_;
    cv_.notify_all();
  }

  bool waitFor(int at_least) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, kDeadline, [&] { return value_ >= at_least; });
  }

  int value() {
    const std::lock_guard lock(mutex_);
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  int value_ = 0;
};
