#include "base/statistics.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <numeric>
#include <utility>

namespace sarnet {
namespace {

constexpr int kWindow = 50;

using Counts = std::array<std::uint64_t, HistogramSteps::kCount>;

std::int64_t percentile(const Counts& counts, double share, std::int64_t max) {
  const auto all = std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
  const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(all)));
  std::uint64_t seen = 0;
  for (std::size_t step = 0; step < counts.size(); ++step) {
    seen += counts[step];
    if (seen >= wanted && seen > 0) {
      return std::min(HistogramSteps::upper_bound_of(static_cast<int>(step)), max);
    }
  }
  return max;
}

}  // namespace

int HistogramSteps::step_of(std::int64_t micros) {
  if (micros < kPerOctave) return static_cast<int>(std::max<std::int64_t>(micros, 0));
  // The octave is the position of the highest bit; the next five bits are the step inside it.
  const int shift = static_cast<int>(std::bit_width(static_cast<std::uint64_t>(micros))) - 6;
  const int step = (shift + 1) * kPerOctave + static_cast<int>((micros >> shift) - kPerOctave);
  return std::min(step, kCount - 1);
}

std::int64_t HistogramSteps::upper_bound_of(int step) {
  if (step < kPerOctave) return step;
  const int shift = step / kPerOctave - 1;
  return ((std::int64_t{step % kPerOctave} + kPerOctave + 1) << shift) - 1;
}

void TimeMeter::add(std::chrono::steady_clock::duration time) {
  const std::int64_t micros = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
  const auto step = static_cast<std::size_t>(HistogramSteps::step_of(micros));
  histogram_[step].fetch_add(1, std::memory_order_relaxed);
  std::int64_t max = max_.load(std::memory_order_relaxed);
  while (micros > max && !max_.compare_exchange_weak(max, micros, std::memory_order_relaxed)) {
  }
}

srn_time_statistics TimeMeter::figures() const {
  std::array<std::uint64_t, HistogramSteps::kCount> counts{};
  std::transform(histogram_.begin(), histogram_.end(), counts.begin(),
                 [](const auto& each) { return each.load(std::memory_order_relaxed); });
  const std::int64_t max = max_.load(std::memory_order_relaxed);
  return {percentile(counts, 0.5, max), percentile(counts, 0.99, max), max};
}

void TimeMeter::clear() {
  for (auto& each : histogram_) each.store(0, std::memory_order_relaxed);
  max_.store(0, std::memory_order_relaxed);
}

void PacingMeter::add(std::int64_t now_us, std::int64_t period_us) {
  const common::LockGuard lock(mutex_);
  if (!running_) {
    running_ = true;
    expected_ = now_us;
    window_ = 0;
    doubtful_ = 0;
  }
  std::int64_t late = now_us - expected_;
  if (doubtful_ != 0) {
    const std::int64_t left_out = (doubtful_ + period_us / 2) / period_us * period_us;
    if (late * 4 >= left_out * 4 - period_us) {
      gaps_ += static_cast<std::uint64_t>(left_out / period_us);
      expected_ += left_out;
      late -= left_out;
      doubtful_ = std::max<std::int64_t>(doubtful_ - left_out, 0);
    }
    book(std::exchange(doubtful_, 0));
  }
  if (late < 0) {
    expected_ = now_us;
    late = 0;
  } else if (late * 2 >= period_us * 5) {
    // Too late to be the same call: the program skipped periods. If it only stalled and catches up,
    // its early calls move the grid back.
    const std::int64_t missed = late / period_us;
    gaps_ += static_cast<std::uint64_t>(missed);
    expected_ += missed * period_us;
    late -= missed * period_us;
  } else if (late * 2 >= period_us * 3) {
    // The next call decides: a program that was delayed catches up, one that skipped periods does
    // not.
    doubtful_ = late;
    expected_ += period_us;
    return;
  }
  book(late);
  expected_ += period_us;
}

void PacingMeter::book(std::int64_t late) {
  ++histogram_[static_cast<std::size_t>(HistogramSteps::step_of(late))];
  max_ = std::max(max_, late);
  least_late_ = window_ == 0 ? late : std::min(least_late_, late);
  if (++window_ == kWindow) {
    expected_ += least_late_;
    window_ = 0;
  }
}

srn_lateness_statistics PacingMeter::lateness() const {
  const common::LockGuard lock(mutex_);
  return {percentile(histogram_, 0.5, max_), percentile(histogram_, 0.99, max_), max_};
}

std::uint64_t PacingMeter::gaps() const {
  const common::LockGuard lock(mutex_);
  return gaps_;
}

void PacingMeter::restart() {
  const common::LockGuard lock(mutex_);
  running_ = false;
}

void PacingMeter::clear() {
  const common::LockGuard lock(mutex_);
  histogram_.fill(0);
  gaps_ = 0;
  max_ = 0;
  running_ = false;
}

void Counters::clear() {
  for (auto* counter :
       {&capture_periods, &capture_frames, &capture_silence, &capture_underruns, &render_periods,
        &render_silent, &frames_provided, &frames_repeated, &frames_black, &frames_late,
        &frames_dropped, &audio.delivered, &audio.dropped, &pictures.delivered, &pictures.dropped,
        &captions.delivered, &captions.dropped}) {
    counter->store(0, std::memory_order_relaxed);
  }
  for (auto* meter : {&audio_callbacks, &picture_callbacks, &caption_callbacks}) {
    meter->waited.clear();
    meter->took.clear();
  }
  capture_pacing.clear();
}

}  // namespace sarnet
