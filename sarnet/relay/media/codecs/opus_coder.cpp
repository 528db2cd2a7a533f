#include "relay/media/codecs/opus_coder.h"

#include <algorithm>
#include <new>
#include <utility>

#include "base/audio_channels.h"

namespace sarnet::relay {
namespace {

// Few enough operations for a busy machine; more are not to be heard in speech. From 7 on the
// encoder looks for silence, too.
constexpr int kComplexity = 5;
constexpr int kComplexityWithDtx = 7;
constexpr int kExpectedLoss = 5;  // per cent
constexpr int kBitsOfChannel = 32000;

}  // namespace

OpusCoder::OpusCoder(bool stereo, bool dtx, Output output)
    : channels_(stereo ? 2 : 1), output_(std::move(output)) {
  int error = OPUS_OK;
  encoder_.reset(opus_encoder_create(kRate, channels_, OPUS_APPLICATION_AUDIO, &error));
  if (!encoder_) throw std::bad_alloc();
  opus_encoder_ctl(encoder_.get(), OPUS_SET_BITRATE(channels_ * kBitsOfChannel));
  opus_encoder_ctl(encoder_.get(), OPUS_SET_COMPLEXITY(dtx ? kComplexityWithDtx : kComplexity));
  opus_encoder_ctl(encoder_.get(), OPUS_SET_INBAND_FEC(1));
  opus_encoder_ctl(encoder_.get(), OPUS_SET_PACKET_LOSS_PERC(kExpectedLoss));
  opus_encoder_ctl(encoder_.get(), OPUS_SET_DTX(dtx ? 1 : 0));
}

void OpusCoder::push(const AudioFormat& format, std::span<const std::int16_t> samples,
                     Micros stamp) {
  if (format.rate != kRate || format.channels < 1 || format.channels > 2) return;
  const auto channels = static_cast<std::size_t>(format.channels);
  const auto own = static_cast<std::size_t>(channels_);
  for (std::size_t frames = samples.size() / channels; frames > 0;) {
    if (filled_ == 0) stamp_ = stamp;
    const std::size_t part = std::min(frames, kFrames - filled_);
    convert_channels(samples.data(), format.channels, samples_.data() + filled_ * own, channels_,
                     part);
    samples = samples.subspan(part * channels);
    frames -= part;
    filled_ += part;
    stamp += Micros{static_cast<std::int64_t>(part) * 1'000'000 / kRate};
    if (filled_ == kFrames) code();
  }
}

void OpusCoder::code() {
  filled_ = 0;
  std::array<std::uint8_t, 1275> packet;  // the largest there is
  const opus_int32 size = opus_encode(encoder_.get(), samples_.data(), static_cast<int>(kFrames),
                                      packet.data(), static_cast<opus_int32>(packet.size()));
  const bool was_silent = std::exchange(silent_, size <= kSilence);
  if (silent_) return;
  output_(std::span(packet).first(static_cast<std::size_t>(size)), stamp_, was_silent);
}

}  // namespace sarnet::relay
