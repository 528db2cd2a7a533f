#pragma once

#include <sarnet/sarnet_statistics.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>

#include "base/delivery_queue.h"
#include "common/mutex.h"

namespace sarnet {

// Steps of histograms over microseconds: each at most 1/32 of its values wide, up to 71 minutes.
struct HistogramSteps {
  static constexpr int kPerOctave = 32;
  static constexpr int kCount = kPerOctave * 27;
  static int step_of(std::int64_t micros);
  static std::int64_t upper_bound_of(int step);
};

// How long something took, as a histogram. Any thread adds and reads; nothing waits or allocates.
// A read may miss values that are being added.
class TimeMeter {
 public:
  void add(std::chrono::steady_clock::duration time);
  srn_time_statistics figures() const;
  void clear();

 private:
  std::array<std::atomic<std::uint64_t>, HistogramSteps::kCount> histogram_{};
  std::atomic<std::int64_t> max_{0};
};

// The callbacks for one kind of media. Any thread.
struct CallbackMeter {
  TimeMeter waited;
  TimeMeter took;
};

// Around one callback: counts the time since its media were `ready` as waited, and the time until
// its destructor, which also runs when the thread ends inside the callback, as taken.
class CallbackTimer {
 public:
  CallbackTimer(CallbackMeter& meter, std::chrono::steady_clock::time_point ready)
      : meter_(meter), begin_(std::chrono::steady_clock::now()) {
    meter_.waited.add(begin_ - ready);
  }
  ~CallbackTimer() { meter_.took.add(std::chrono::steady_clock::now() - begin_); }
  CallbackTimer(const CallbackTimer&) = delete;
  CallbackTimer& operator=(const CallbackTimer&) = delete;

 private:
  CallbackMeter& meter_;
  const std::chrono::steady_clock::time_point begin_;
};

// Lateness of periodic calls against an ideal grid of their period. The grid starts with the first
// call, moves forward to a call that comes early, and back when half a second of calls were all
// late, so that a slightly fast or slow clock, or a single stall, does not count for ever. Whole
// periods that are skipped, and not made up by the next call, are gaps and make no call late. Any
// thread; nothing allocates.
class PacingMeter {
 public:
  // One call, `now_us` on any steady clock, carrying `period_us` worth of media.
  void add(std::int64_t now_us, std::int64_t period_us);
  srn_lateness_statistics lateness() const;
  // Periods of the grid without a call.
  std::uint64_t gaps() const;
  // The next call starts a new grid; the counts stay.
  void restart();
  void clear();

 private:
  void book(std::int64_t late) REQUIRES(mutex_);

  mutable common::Mutex mutex_;
  std::array<std::uint64_t, HistogramSteps::kCount> histogram_ GUARDED_BY(mutex_){};
  std::uint64_t gaps_ GUARDED_BY(mutex_) = 0;
  std::int64_t max_ GUARDED_BY(mutex_) = 0;
  bool running_ GUARDED_BY(mutex_) = false;
  std::int64_t doubtful_ GUARDED_BY(mutex_) =
      0;  // how late the last call was, when that may have been a pause
  std::int64_t expected_ GUARDED_BY(mutex_) = 0;
  std::int64_t least_late_ GUARDED_BY(mutex_) = 0;
  int window_ GUARDED_BY(mutex_) = 0;
};

// The library's counters. Any thread.
struct Counters {
  std::atomic<std::uint64_t> capture_periods{0};
  std::atomic<std::uint64_t> capture_frames{0};
  std::atomic<std::uint64_t> capture_silence{0};
  std::atomic<std::uint64_t> capture_underruns{0};
  std::atomic<std::uint64_t> render_periods{0};
  std::atomic<std::uint64_t> render_silent{0};
  std::atomic<std::uint64_t> frames_provided{0};
  std::atomic<std::uint64_t> frames_repeated{0};
  std::atomic<std::uint64_t> frames_black{0};
  std::atomic<std::uint64_t> frames_late{0};
  std::atomic<std::uint64_t> frames_dropped{0};
  DeliveryCounter audio;
  DeliveryCounter pictures;
  DeliveryCounter captions;
  CallbackMeter audio_callbacks;
  CallbackMeter picture_callbacks;
  CallbackMeter caption_callbacks;
  PacingMeter capture_pacing;

  void clear();
};

}  // namespace sarnet
