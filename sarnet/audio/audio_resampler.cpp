#include "audio/audio_resampler.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <new>
#include <stdexcept>

#include "base/audio_channels.h"

namespace sarnet {
namespace {

constexpr std::size_t kBlockFrames = 1024;
// 32 taps in 128 phases with linear interpolation between them: more taps or phases measure alike,
// 16 taps lose 0.4 dB at 19 kHz.
constexpr int kTaps = 32;
constexpr int kPhaseShift = 7;
constexpr double kCutoff = 0.97;
// A correction is given as a number of frames in so many: to a fifth of a millionth.
constexpr int kCorrectionFrames = 4'800'000;

}  // namespace

void AudioResampler::ContextDeleter::operator()(SwrContext* context) const { swr_free(&context); }

AudioResampler::AudioResampler(AudioFormat input, AudioFormat output)
    : input_(input),
      output_(output),
      channels_(std::min(input.channels, output.channels)),
      interpolating_(input.rate != output.rate) {
  if (!input.valid() || !output.valid()) {
    throw std::invalid_argument("audio format outside of 8 to 48 kHz and 1 or 2 channels");
  }
  if (input.channels > output.channels) mixed_.resize(kBlockFrames);
  AVChannelLayout layout;
  av_channel_layout_default(&layout, channels_);
  SwrContext* context = nullptr;
  swr_alloc_set_opts2(&context, &layout, AV_SAMPLE_FMT_S16, output.rate, &layout, AV_SAMPLE_FMT_S16,
                      input.rate, 0, nullptr);
  context_.reset(context);
  if (!context_) throw std::bad_alloc();
  av_opt_set_sample_fmt(context, "internal_sample_fmt", AV_SAMPLE_FMT_FLTP, 0);
  av_opt_set_int(context, "flags", SWR_FLAG_RESAMPLE, 0);
  av_opt_set_int(context, "filter_size", kTaps, 0);
  av_opt_set_int(context, "phase_shift", kPhaseShift, 0);
  av_opt_set_int(context, "linear_interp", 1, 0);
  av_opt_set_int(context, "exact_rational", 0, 0);
  av_opt_set_double(context, "cutoff", kCutoff, 0);
  if (swr_init(context) < 0) throw std::bad_alloc();
}

AudioResampler::~AudioResampler() = default;

void AudioResampler::set_correction(double factor) {
  factor = std::clamp(factor, 0.9, 1.1);
  if (factor == correction_ && factor == 1.0) return;
  correction_ = factor;
  if (correction_ != 1.0) interpolating_ = true;
}

AudioResampler::Result AudioResampler::convert_block(std::span<const std::int16_t> input,
                                                     std::span<std::int16_t> output) {
  const auto in_channels = static_cast<std::size_t>(input_.channels);
  const auto out_channels = static_cast<std::size_t>(output_.channels);
  const std::size_t in_frames = std::min(input.size() / in_channels, kBlockFrames);
  const std::size_t out_frames = std::min(output.size() / out_channels, kBlockFrames);

  const std::int16_t* source = input.data();
  if (!mixed_.empty()) {
    convert_channels(source, 2, mixed_.data(), 1, in_frames);
    source = mixed_.data();
  }
  // The library counts the frames that the output has too many: 1 - 1 / c of them make c times as
  // many. It forgets after that many frames, so it is told each time.
  const auto surplus = static_cast<int>(std::lround((1 - 1 / correction_) * kCorrectionFrames));
  swr_set_compensation(context_.get(), surplus, kCorrectionFrames);
  used_ = true;
  const auto* const in = reinterpret_cast<const std::uint8_t*>(source);
  auto* const out = reinterpret_cast<std::uint8_t*>(output.data());
  // Input that finds no room in the output stays in the library.
  const int made = swr_convert(context_.get(), const_cast<std::uint8_t**>(std::array{out}.data()),
                               static_cast<int>(out_frames),
                               const_cast<const std::uint8_t**>(std::array{in}.data()),
                               static_cast<int>(in_frames));
  if (made < 0) return {};
  const auto produced = static_cast<std::size_t>(made);
  if (out_channels > in_channels) {
    // In place, so from the end.
    for (std::size_t i = produced; i-- > 0;) {
      output[2 * i + 1] = output[i];
      output[2 * i] = output[i];
    }
  }
  return {in_frames, produced};
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

double AudioResampler::delay() const {
  constexpr std::int64_t kParts = 1000;  // of a frame
  if (!interpolating_ || !used_) return 0;
  return static_cast<double>(swr_get_delay(context_.get(), input_.rate * kParts)) / kParts;
}

void AudioResampler::reset() {
  // Keeps the filter; it failed to grow a few hundred bytes, if it fails.
  if (used_) swr_init(context_.get());
  used_ = false;
  interpolating_ = input_.rate != output_.rate || correction_ != 1.0;
}

}  // namespace sarnet
