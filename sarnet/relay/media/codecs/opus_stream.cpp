#include "relay/media/codecs/opus_stream.h"

#include <algorithm>
#include <utility>

namespace sarnet::relay {

namespace {
// A longer loss is a break in the stream, which goes on where it is.
constexpr std::int32_t kLongestLoss = 48000;
// What the decoder guesses at a time, and the step of all that it guesses.
constexpr std::int32_t kGuess = 480;
constexpr std::int32_t kGrain = 120;
// A number further back is no late packet: the stream has begun anew.
constexpr int kLatest = -1000;
}  // namespace

OpusStream::OpusStream(int channels, Output output)
    : output_(std::move(output)), wanted_channels_(channels) {}

bool OpusStream::prepare(std::span<const std::uint8_t> packet) {
  const int channels = wanted_channels_ != 0
                           ? wanted_channels_
                           : std::max(format_.channels, opus_packet_get_nb_channels(packet.data()));
  if (decoder_ && channels == format_.channels) return true;
  int error = OPUS_OK;
  decoder_.reset(opus_decoder_create(kRate, channels, &error));
  format_.channels = channels;
  return decoder_ != nullptr;
}

void OpusStream::take(std::uint16_t number, std::uint32_t place,
                      std::span<const std::uint8_t> packet) {
  const auto ahead = static_cast<std::int16_t>(number - next_number_);
  const auto size = static_cast<opus_int32>(packet.size());
  const int frames = size == 0 ? 0 : opus_packet_get_nb_samples(packet.data(), size, kRate);
  const bool late = begun_ && ahead < 0 && ahead > kLatest;
  if (frames <= 0 || frames > kLongestPacket || late || !prepare(packet)) return;
  if (begun_ && ahead >= 0) conceal(static_cast<std::int32_t>(place - next_place_), packet);
  decode(packet, kLongestPacket, false);
  begun_ = true;
  next_number_ = static_cast<std::uint16_t>(number + 1);
  next_place_ = place + static_cast<std::uint32_t>(frames);
}

void OpusStream::conceal(std::int32_t missing, std::span<const std::uint8_t> next) {
  missing -= missing % kGrain;
  if (missing <= 0 || missing > kLongestLoss) return;
  const int last = std::min(missing, opus_packet_get_samples_per_frame(next.data(), kRate));
  for (std::int32_t left = missing - last; left > 0; left -= std::min(left, kGuess)) {
    decode({}, std::min(left, kGuess), false);
  }
  decode(next, last, true);
}

void OpusStream::decode(std::span<const std::uint8_t> packet, int frames, bool redundancy) {
  const int made = opus_decode(decoder_.get(), packet.empty() ? nullptr : packet.data(),
                               static_cast<opus_int32>(packet.size()), samples_.data(), frames,
                               redundancy ? 1 : 0);
  if (made > 0) {
    output_(format_, std::span(samples_).first(static_cast<std::size_t>(made) *
                                               static_cast<std::size_t>(format_.channels)));
  }
}

}  // namespace sarnet::relay
