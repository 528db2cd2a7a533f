#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace sarnet {

// Begins and ends sound without a click. Interleaved frames, one thread.
class Fader {
 public:
  Fader(std::size_t frames, int channels)
      : frames_(frames), channels_(static_cast<std::size_t>(channels)), risen_(frames) {}

  // The next sound fades in from silence.
  void begin_rise() { risen_ = 0; }
  void begin_whole() { risen_ = frames_; }
  // Sound to be played: applies the rest of the fade-in, and keeps its last frame.
  void pass(std::span<std::int16_t> samples);

  // The sound has ended: its last frame decays into the silence that follows.
  void begin_decay() { decay_left_ = frames_; }
  bool decaying() const { return decay_left_ > 0; }
  // Fills with the rest of the decay and with silence; how many frames are silent.
  std::size_t silence(std::span<std::int16_t> samples);

 private:
  const std::size_t frames_;
  const std::size_t channels_;
  std::size_t risen_;
  std::size_t decay_left_ = 0;
  std::array<std::int16_t, 2> last_frame_{};
};

// Cross-fades from the frames that would have followed to those that replace them. One thread.
class CrossFade {
 public:
  explicit CrossFade(std::size_t samples) : old_(samples), position_(samples) {}

  // Takes the frames that would have followed; fill it before begin().
  std::span<std::int16_t> old_side() { return old_; }
  void begin() { position_ = 0; }
  void cancel() { position_ = old_.size(); }
  void apply(std::span<std::int16_t> samples);

 private:
  std::vector<std::int16_t> old_;
  std::size_t position_;
};

// Interpolates from `a` to `b`: step `done` of `whole`.
inline std::int16_t mixed(std::int16_t a, std::int16_t b, std::size_t done, std::size_t whole) {
  const int all = static_cast<int>(whole);
  const int passed = static_cast<int>(done);
  return static_cast<std::int16_t>((a * (all - passed) + b * passed) / all);
}

}  // namespace sarnet
