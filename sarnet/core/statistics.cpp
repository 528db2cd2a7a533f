#include "core/statistics.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace sarnet {
namespace {

constexpr int kWindow = 50;

}  // namespace

int PacingMeter::step_of(std::int64_t micros) {
  if (micros < kStepsPerOctave) return static_cast<int>(std::max<std::int64_t>(micros, 0));
  // The octave is the position of the highest bit; the next five bits are the step inside it.
  const int shift = static_cast<int>(std::bit_width(static_cast<std::uint64_t>(micros))) - 6;
  const int step =
      (shift + 1) * kStepsPerOctave + static_cast<int>((micros >> shift) - kStepsPerOctave);
  return std::min(step, kStepsPerOctave * kOctaves - 1);
}

std::int64_t PacingMeter::upper_bound_of(int step) {
  if (step < kStepsPerOctave) return step;
  const int shift = step / kStepsPerOctave - 1;
  return ((std::int64_t{step % kStepsPerOctave} + kStepsPerOctave + 1) << shift) - 1;
}

void PacingMeter::add(std::int64_t now_us, std::int64_t period_us) {
  const std::lock_guard lock(mutex_);
  if (!running_) {
    running_ = true;
    expected_ = now_us;
    window_ = 0;
  }
  std::int64_t late = now_us - expected_;
  if (late < 0) {
    expected_ = now_us;
    late = 0;
  } else if (late * 2 >= period_us * 5) {
    // Too late to be the same call: the program let periods pass. If it was a stall, and it catches
    // up, the early calls move the grid back.
    const std::int64_t missed = late / period_us;
    gaps_ += static_cast<std::uint64_t>(missed);
    expected_ += missed * period_us;
    late -= missed * period_us;
  }
  ++calls_;
  ++histogram_[static_cast<std::size_t>(step_of(late))];
  max_ = std::max(max_, late);
  expected_ += period_us;
  least_late_ = window_ == 0 ? late : std::min(least_late_, late);
  if (++window_ == kWindow) {
    expected_ += least_late_;
    window_ = 0;
  }
}

std::int64_t PacingMeter::percentile(double share) const {
  const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(calls_)));
  std::uint64_t seen = 0;
  for (std::size_t step = 0; step < histogram_.size(); ++step) {
    seen += histogram_[step];
    if (seen >= wanted && seen > 0) {
      return std::min(upper_bound_of(static_cast<int>(step)), max_);
    }
  }
  return max_;
}

srn_lateness_statistics PacingMeter::lateness() const {
  const std::lock_guard lock(mutex_);
  if (calls_ == 0) return {0, 0, 0};
  return {percentile(0.5), percentile(0.99), max_};
}

std::uint64_t PacingMeter::gaps() const {
  const std::lock_guard lock(mutex_);
  return gaps_;
}

void PacingMeter::restart() {
  const std::lock_guard lock(mutex_);
  running_ = false;
}

void PacingMeter::clear() {
  const std::lock_guard lock(mutex_);
  histogram_.fill(0);
  calls_ = 0;
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
  capture_pacing.clear();
}

}  // namespace sarnet
