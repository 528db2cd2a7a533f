#include "audio/clock_controller.h"

#include <algorithm>
#include <cmath>

namespace sarnet {
namespace {

// The queue's length moves in steps of the writer's blocks even when the clocks agree, so small
// errors get a low gain (a step of 10 ms bends the pitch by 0.3 %) and only what exceeds the steps
// gets a high one.
constexpr double kMeanSeconds = 0.3;
constexpr double kSoftGain = 0.3;  // speed-up for each second of error
constexpr double kFirmGain = 1.5;  // the same for the part above kDeadBandMs
// Learned difference for each second of error and second of time.
constexpr double kSoftLearning = 0.05;
constexpr double kFirmLearning = 0.5;
constexpr double kMaxCorrection = 0.045;
constexpr double kMaxLearned = 0.03;
constexpr double kMaxSlew = 0.04;  // change of the speed-up for each second

}  // namespace

void ClockController::begin() {
  correction_ = std::clamp(learned_, -kMaxCorrection, kMaxCorrection);
  mean_ms_ = aim_ms_;
}

bool ClockController::is_off() const { return std::abs(mean_ms_ - aim_ms_) > kDeadBandMs; }

void ClockController::update(double queued_ms, double seconds, bool steering) {
  mean_ms_ += (queued_ms - mean_ms_) * std::min(1.0, seconds / kMeanSeconds);
  if (!steering) return;
  const double error = (mean_ms_ - aim_ms_) / 1000.0;
  const double excess = error - std::clamp(error, -kDeadBandMs / 1000.0, kDeadBandMs / 1000.0);
  learned_ = std::clamp(learned_ + (kSoftLearning * error + kFirmLearning * excess) * seconds,
                        -kMaxLearned, kMaxLearned);
  const double wanted = std::clamp(learned_ + kSoftGain * error + kFirmGain * excess,
                                   -kMaxCorrection, kMaxCorrection);
  correction_ += std::clamp(wanted - correction_, -kMaxSlew * seconds, kMaxSlew * seconds);
  const bool calm =
      std::abs(learned_) < kCalmCorrection && std::abs(error) * 1000 < kDeadBandMs / 2;
  calm_seconds_ = calm ? calm_seconds_ + seconds : 0;
}

}  // namespace sarnet
