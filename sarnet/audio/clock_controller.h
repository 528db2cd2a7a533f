#pragma once

namespace sarnet {

// Keeps the mean of a queue where it should be, by how much faster or slower its reader takes. Fed
// with the queue's length at each read; what the two clocks differ by is learned on the way. Times
// in milliseconds of sound; no clock and no thread of its own.
class ClockController {
 public:
  // By which the mean may be off before it counts: what a writer's blocks of 10 ms make of it.
  static constexpr double kDeadBandMs = 8;

  // Where the mean is to be, from now on; it is brought there without a jump.
  void aim_for(double ms) { aim_ms_ = ms; }
  // Begins a new stretch of sound with the queue where it should be, and with what was learned.
  void begin();
  // The queue was cut to its aim.
  void settle() { mean_ms_ = aim_ms_; }

  // One read of `seconds`, after which `queued_ms` were left. `steering`: the reader follows.
  void update(double queued_ms, double seconds, bool steering);

  // Whether the reader must follow.
  bool is_off() const;
  // How much faster to read: 0.01 is one per cent.
  double correction() const { return correction_; }
  void reset_correction() { correction_ = 0; }

 private:
  double aim_ms_ = 0;
  double mean_ms_ = 0;
  double learned_ = 0;
  double correction_ = 0;
};

}  // namespace sarnet
