#include "audio/audio_mixer.h"

#include <algorithm>
#include <limits>

namespace sarnet {

AudioMixer::AudioMixer(std::size_t max_samples) : sum_(max_samples) {}

void AudioMixer::start(std::size_t samples) {
  length_ = std::min(samples, sum_.size());
  sources_ = 0;
  std::fill_n(sum_.begin(), length_, 0);
}

void AudioMixer::add(std::span<const std::int16_t> source) {
  const std::size_t count = std::min(source.size(), length_);
  for (std::size_t i = 0; i < count; ++i) sum_[i] += source[i];
  ++sources_;
}

void AudioMixer::finish(std::span<std::int16_t> output) const {
  using Limits = std::numeric_limits<std::int16_t>;
  const std::size_t count = std::min(output.size(), length_);
  for (std::size_t i = 0; i < count; ++i) {
    output[i] =
        static_cast<std::int16_t>(std::clamp<std::int32_t>(sum_[i], Limits::min(), Limits::max()));
  }
  std::fill(output.begin() + static_cast<std::ptrdiff_t>(count), output.end(), std::int16_t{0});
}

}  // namespace sarnet
