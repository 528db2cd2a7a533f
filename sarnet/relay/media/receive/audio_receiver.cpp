#include "relay/media/receive/audio_receiver.h"

#include <algorithm>

namespace sarnet::relay {

AudioReceiver::AudioReceiver(int channels, Micros patience, MediaSink& sink)
    : sink_(sink),
      // A second and a quarter of packets of 10 ms.
      order_({.patience = patience, .capacity = 128}, *this),
      opus_(channels, [this](const AudioFormat& format, std::span<const std::int16_t> samples) {
        split(format, samples);
      }) {}

void AudioReceiver::take(const RtpPacket& packet, Micros now) { order_.insert(packet, now); }

void AudioReceiver::on_packet(std::int64_t sequence, const RtpPacket& packet) {
  opus_.take(static_cast<std::uint16_t>(sequence), packet.timestamp, packet.payload);
}

void AudioReceiver::split(const AudioFormat& format, std::span<const std::int16_t> samples) {
  if (format != format_) {
    format_ = format;
    filled_ = 0;
  }
  const auto block = static_cast<std::size_t>(format_.period_frames()) *
                     static_cast<std::size_t>(format_.channels);
  while (!samples.empty()) {
    if (filled_ == 0 && samples.size() >= block) {
      sink_.on_audio(format_, samples.first(block));
      samples = samples.subspan(block);
      continue;
    }
    const std::size_t part = std::min(block - filled_, samples.size());
    std::copy_n(samples.begin(), part, rest_.begin() + static_cast<std::ptrdiff_t>(filled_));
    samples = samples.subspan(part);
    filled_ += part;
    if (filled_ == block) {
      filled_ = 0;
      sink_.on_audio(format_, std::span(rest_).first(block));
    }
  }
}

}  // namespace sarnet::relay
