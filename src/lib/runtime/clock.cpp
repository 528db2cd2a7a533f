#include "runtime/clock.h"

#include <sys/prctl.h>

#include <cerrno>
#include <ctime>

TimePoint Clock::now() { return std::chrono::steady_clock::now(); }

void Clock::sleepUntil(TimePoint t) { sleepFor(t - now()); }

void Clock::sleepFor(Nanos duration) {
  if (duration <= Nanos::zero()) return;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  timespec remaining{.tv_sec = seconds.count(), .tv_nsec = (duration - seconds).count()};
  while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
  }
}

void Clock::sharpenCurrentThread() { prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL); }
