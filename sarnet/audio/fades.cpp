#include "audio/fades.h"

#include <algorithm>

namespace sarnet {

void Fader::pass(std::span<std::int16_t> samples) {
  for (std::size_t i = 0; i < samples.size() && risen_ < frames_; ++i) {
    samples[i] = mixed(0, samples[i], risen_, frames_);
    risen_ += i % channels_ == channels_ - 1 ? 1 : 0;
  }
  if (!samples.empty()) {
    std::copy_n(samples.end() - static_cast<std::ptrdiff_t>(channels_), channels_,
                last_frame_.begin());
  }
}

std::size_t Fader::silence(std::span<std::int16_t> samples) {
  const std::size_t frames = samples.size() / channels_;
  const std::size_t decaying = std::min(decay_left_, frames);
  for (std::size_t i = 0; i < decaying * channels_; ++i) {
    samples[i] = mixed(0, last_frame_[i % channels_], decay_left_ - 1 - i / channels_, frames_);
  }
  decay_left_ -= decaying;
  std::fill(samples.begin() + static_cast<std::ptrdiff_t>(decaying * channels_), samples.end(),
            std::int16_t{0});
  return frames - decaying;
}

void CrossFade::apply(std::span<std::int16_t> samples) {
  for (std::size_t i = 0; i < samples.size() && position_ < old_.size(); ++i, ++position_) {
    samples[i] = mixed(old_[position_], samples[i], position_, old_.size());
  }
}

}  // namespace sarnet
