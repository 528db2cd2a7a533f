// The controls that belong to no single part of the library: log, failures, waiting.
#include <ctime>
#include <string>

#include "audio.h"
#include "events.h"
#include "frames.h"
#include "media.h"
#include "script.h"
#include "scripted_sarnet.h"
#include "strand.h"

using scripted::functionNamed;
using scripted::script;
using scripted::strands;

namespace {

using Clock = std::chrono::steady_clock;

// Events first: their tasks post to the others.
scripted::Strand* const kStrands[] = {&strands().events, &strands().device, &strands().audio,
                                      &strands().frames, &strands().captions};

bool waitIdle(Clock::time_point deadline) {
  return std::all_of(std::begin(kStrands), std::end(kStrands),
                     [deadline](auto* strand) { return strand->waitIdle(deadline); });
}

}  // namespace

void scripted_reset(void) {
  scripted::resetMedia();
  scripted::resetAudioFlow();
  for (auto* strand : kStrands) strand->drop();
  scripted::finishDevice();  // a dropped wind-down would leave it running for good
  scripted::forgetHandles();
  scripted::resetAnswers();
  scripted::resetProvided();
  script().reset();
}

const char* scripted_calls(void) {
  thread_local std::string kept;
  kept = script().log();
  return kept.c_str();
}

void scripted_log(int on) { script().log_on.store(on != 0); }

long scripted_faults(void) { return static_cast<long>(script().faults().size()); }

const char* scripted_fault_texts(void) {
  thread_local std::string kept;
  kept.clear();
  for (const std::string& fault : script().faults()) kept += fault + '\n';
  return kept.c_str();
}

long scripted_call_count(const char* function) {
  const auto* const named = functionNamed(function);
  return named != nullptr ? named->calls.load() : -1;
}

int scripted_wait_calls(const char* function, long count, int timeout_ms) {
  const auto* const named = functionNamed(function);
  return named != nullptr && script().waitCalls(*named, count, timeout_ms) ? 1 : 0;
}

size_t scripted_times(const char* function, int64_t* out, size_t max) {
  const auto* const named = functionNamed(function);
  if (named == nullptr || named->times.empty()) return 0;
  const auto calls = static_cast<size_t>(named->calls.load());
  const size_t given = std::min({calls, max, scripted::Function::kTimes});
  for (size_t i = 0; i < given; ++i) {
    out[i] = named->times[(calls - given + i) % scripted::Function::kTimes].load();
  }
  return given;
}

void scripted_bare_ticks(int64_t period_ns, int64_t* out, size_t count) {
  constexpr int64_t kSecond = 1'000'000'000;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  int64_t due = now.tv_sec * kSecond + now.tv_nsec;
  for (size_t i = 0; i < count; ++i) {
    due += period_ns;
    const timespec wake{due / kSecond, due % kSecond};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wake, nullptr);
    clock_gettime(CLOCK_MONOTONIC, &now);
    out[i] = now.tv_sec * kSecond + now.tv_nsec;
  }
}

long scripted_live(const char* kind) { return scripted::live(kind); }

void scripted_fail(const char* function, int32_t status, int times) {
  auto* const named = functionNamed(function);
  if (named == nullptr) {
    script().fault(std::string("scripted_fail: no function ") + function);
    return;
  }
  named->status.store(status);
  named->failures.store(times);
}

int scripted_wait_idle(int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  // Once more, for tasks that one strand has posted to another meanwhile.
  return waitIdle(deadline) && waitIdle(deadline) ? 1 : 0;
}

void scripted_rogue(int on) { script().rogue.store(on != 0); }
