#pragma once

namespace sarnet {

// Holds a queue's mean length at a target by making its reader faster or slower. Fed with the
// queue's length at each read; learns the difference of the two clocks. Times in milliseconds of
// sound; no clock and no thread of its own.
class ClockController {
 public:
  // The error of the mean that is tolerated: a writer's blocks of 10 ms cause as much.
  static constexpr double kDeadBandMs = 8;
  // Clocks that differ by less than kCalmCorrection, with the queue near its target for
  // kCalmSeconds: unstretched, the queue takes most of a minute to leave the band.
  static constexpr double kCalmSeconds = 5;
  static constexpr double kCalmCorrection = 100e-6;

  // The new target of the mean, which is reached without a jump.
  void aim_for(double ms) { aim_ms_ = ms; }
  // Begins a new stretch of sound with the queue at its target; keeps what was learned.
  void begin();
  // The queue was cut to its target.
  void settle() { mean_ms_ = aim_ms_; }

  // One read of `seconds`, after which `queued_ms` were left. `steering`: the reader follows.
  void update(double queued_ms, double seconds, bool steering);

  // Whether the reader must follow.
  bool is_off() const;
  // Whether the clocks have agreed for so long that the reader need not follow any more.
  bool is_calm() const { return calm_seconds_ >= kCalmSeconds; }
  // How much faster to read: 0.01 is one per cent.
  double correction() const { return correction_; }
  void reset_correction() { correction_ = calm_seconds_ = 0; }

 private:
  double aim_ms_ = 0;
  double mean_ms_ = 0;
  double learned_ = 0;
  double correction_ = 0;
  double calm_seconds_ = 0;
};

}  // namespace sarnet
