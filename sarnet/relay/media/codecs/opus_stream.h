#pragma once

#include <opus/opus.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "base/audio_format.h"

namespace sarnet::relay {

// Decodes one stream of Opus packets in the order of their numbers. Lost packets are concealed: the
// last one from the redundancy that the next packet carries about it (in-band FEC), those before by
// the decoder's guess. What a sender left out because it was silent is filled in the same way, with
// faint noise, once it goes on. One thread at a time; nothing allocates after the first packet, nor
// after the first stereo packet of a stream that began in mono.
class OpusStream {
 public:
  // Interleaved samples of up to 120 ms, valid during the call.
  using Output = std::function<void(const AudioFormat&, std::span<const std::int16_t>)>;

  // `channels` 0: as the packets are.
  explicit OpusStream(int channels, Output output);

  // A packet with its number and its place in samples of 48 kHz, as RTP has them. Old ones,
  // duplicates and what is no Opus are dropped.
  void take(std::uint16_t number, std::uint32_t place, std::span<const std::uint8_t> packet);

 private:
  struct DestroyDecoder {
    void operator()(OpusDecoder* decoder) const { opus_decoder_destroy(decoder); }
  };
  static constexpr int kRate = 48000;
  static constexpr int kLongestPacket = kRate * 120 / 1000;

  bool prepare(std::span<const std::uint8_t> packet);
  void conceal(std::int32_t missing, std::span<const std::uint8_t> next);
  // `packet` empty: a guess. `redundancy`: what the packet says about the one before it.
  void decode(std::span<const std::uint8_t> packet, int frames, bool redundancy);

  const Output output_;
  const int wanted_channels_;
  AudioFormat format_{kRate, 0};
  std::unique_ptr<OpusDecoder, DestroyDecoder> decoder_;
  bool begun_ = false;
  std::uint16_t next_number_ = 0;
  std::uint32_t next_place_ = 0;
  std::array<std::int16_t, std::size_t{2} * kLongestPacket> samples_{};
};

}  // namespace sarnet::relay
