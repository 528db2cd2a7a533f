#include "runtime/clock.h"

#include <sys/prctl.h>

#include <cerrno>
#include <ctime>

TimePoint Clock::now() { return std::chrono::steady_clock::now(); }

void Clock::sleepUntil(TimePoint t) {
  for (;;) {
    // Recomputed after each signal: nanosleep's remainder ignores the handler's time, so many
    // signals could hold the sleeper for ever.
    const Nanos left = t - now();
    if (left <= Nanos::zero()) return;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const timespec duration{.tv_sec = seconds.count(), .tv_nsec = (left - seconds).count()};
    if (nanosleep(&duration, nullptr) == 0 || errno != EINTR) return;
  }
}

void Clock::sleepFor(Nanos duration) { sleepUntil(now() + duration); }

void Clock::sharpenCurrentThread() { prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL); }
