#pragma once

#include <chrono>

/// A signed 64-bit count of nanoseconds.
using Nanos = std::chrono::nanoseconds;

/// A point on the steady clock.
using TimePoint = std::chrono::time_point<std::chrono::steady_clock, Nanos>;

/// The time source of everything that is paced.
class Clock : public std::chrono::steady_clock {
 public:
  static TimePoint now();

  /// Returns once `t` has passed; at once, without sleeping, if it already has.
  static void sleepUntil(TimePoint t);

  /// Sleeps for `duration`, resuming after signals; not at all when it is not positive.
  static void sleepFor(Nanos duration);

  /// Asks the kernel not to coalesce the calling thread's wake-ups, which by default may add 50 us
  /// to every sleep. For threads that pace media.
  static void sharpenCurrentThread();
};
