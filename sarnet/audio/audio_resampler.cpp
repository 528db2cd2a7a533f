#include "audio/audio_resampler.h"

#include <samplerate.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <stdexcept>

#include "base/audio_channels.h"

namespace sarnet {
namespace {

constexpr std::size_t kBlockFrames = 1024;

}  // namespace

void AudioResampler::StateDeleter::operator()(void* state) const {
  src_delete(static_cast<SRC_STATE*>(state));
}

AudioResampler::AudioResampler(AudioFormat input, AudioFormat output)
    : input_(input),
      output_(output),
      channels_(std::min(input.channels, output.channels)),
      interpolating_(input.rate != output.rate) {
  if (!input.valid() || !output.valid()) {
    throw std::invalid_argument("audio format outside of 8 to 48 kHz and 1 or 2 channels");
  }
  input_block_.resize(kBlockFrames * static_cast<std::size_t>(channels_));
  output_block_.resize(kBlockFrames * static_cast<std::size_t>(channels_));
  int failure = 0;
  state_.reset(src_new(SRC_SINC_FASTEST, channels_, &failure));
  if (!state_) throw std::bad_alloc();
}

AudioResampler::~AudioResampler() = default;

double AudioResampler::ratio() const {
  return static_cast<double>(output_.rate) / input_.rate * correction_;
}

void AudioResampler::set_correction(double factor) {
  correction_ = std::clamp(factor, 0.9, 1.1);
  if (correction_ != 1.0) interpolating_ = true;
}

AudioResampler::Result AudioResampler::convert_block(std::span<const std::int16_t> input,
                                                     std::span<std::int16_t> output) {
  const auto in_channels = static_cast<std::size_t>(input_.channels);
  const auto out_channels = static_cast<std::size_t>(output_.channels);
  const std::size_t in_frames = std::min(input.size() / in_channels, kBlockFrames);
  const std::size_t out_frames = std::min(output.size() / out_channels, kBlockFrames);

  if (in_channels > out_channels) {
    for (std::size_t i = 0; i < in_frames; ++i) {
      input_block_[i] = static_cast<float>(input[2 * i] + input[2 * i + 1]) / 65536.0F;
    }
  } else {
    src_short_to_float_array(input.data(), input_block_.data(),
                             static_cast<int>(in_frames * in_channels));
  }
  SRC_DATA data{};
  data.data_in = input_block_.data();
  data.data_out = output_block_.data();
  data.input_frames = static_cast<long>(in_frames);
  data.output_frames = static_cast<long>(out_frames);
  data.src_ratio = ratio();
  if (src_process(static_cast<SRC_STATE*>(state_.get()), &data) != 0) {
    return {};
  }
  const auto produced = static_cast<std::size_t>(data.output_frames_gen);
  src_float_to_short_array(output_block_.data(), output.data(),
                           static_cast<int>(produced * static_cast<std::size_t>(channels_)));
  if (out_channels > in_channels) {
    // In place, so from the end.
    for (std::size_t i = produced; i-- > 0;) {
      output[2 * i + 1] = output[i];
      output[2 * i] = output[i];
    }
  }
  return {static_cast<std::size_t>(data.input_frames_used), produced};
}

AudioResampler::Result AudioResampler::process(std::span<const std::int16_t> input,
                                               std::span<std::int16_t> output) {
  const auto in_channels = static_cast<std::size_t>(input_.channels);
  const auto out_channels = static_cast<std::size_t>(output_.channels);
  if (!interpolating_) {
    const std::size_t frames = std::min(input.size() / in_channels, output.size() / out_channels);
    if (frames > 0) {
      convert_channels(input.data(), input_.channels, output.data(), output_.channels, frames);
    }
    return {frames, frames};
  }
  Result total;
  while (output.size() >= out_channels) {
    const Result step = convert_block(input, output);
    total.consumed += step.consumed;
    total.produced += step.produced;
    input = input.subspan(step.consumed * in_channels);
    output = output.subspan(step.produced * out_channels);
    if (step.consumed == 0 && step.produced == 0) break;
  }
  return total;
}

void AudioResampler::reset() {
  src_reset(static_cast<SRC_STATE*>(state_.get()));
  interpolating_ = input_.rate != output_.rate || correction_ != 1.0;
}

}  // namespace sarnet
