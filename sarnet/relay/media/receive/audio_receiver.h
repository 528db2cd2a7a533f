#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "base/engine.h"
#include "relay/media/codecs/opus_stream.h"
#include "relay/media/receive/reorder_buffer.h"

namespace sarnet::relay {

// One stream of Opus packets as they come from the network, made into blocks of 10 ms of 48 kHz. A
// packet that was overtaken or lost is waited for as long as `patience` says; then the decoder
// fills it in. One thread at a time; allocates nothing in the steady state.
class AudioReceiver : private OrderedSink {
 public:
  // `channels` 0: as the packets are. The sink must outlive the receiver.
  AudioReceiver(int channels, Micros patience, MediaSink& sink);

  void take(const RtpPacket& packet, Micros now);
  void advance(Micros now) { order_.advance(now); }
  std::optional<Micros> deadline() const { return order_.deadline(); }
  std::span<ReorderBuffer::Missing> missing() { return order_.missing(); }
  std::span<const ReorderBuffer::Missing> missing() const { return order_.missing(); }
  std::int64_t on_wire(std::int64_t sequence) const { return order_.on_wire(sequence); }
  const ReorderBuffer::Counters& counters() const { return order_.counters(); }

 private:
  void on_packet(std::int64_t sequence, const RtpPacket& packet) override;
  void on_lost(std::int64_t, std::int64_t) override {}  // seen by the next packet's number
  void split(const AudioFormat& format, std::span<const std::int16_t> samples);

  MediaSink& sink_;
  ReorderBuffer order_;
  OpusStream opus_;
  AudioFormat format_{48000, 2};
  // The beginning of a block, whose end is still to come.
  std::array<std::int16_t, 960> rest_{};
  std::size_t filled_ = 0;
};

}  // namespace sarnet::relay
