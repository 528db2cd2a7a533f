#pragma once

#include <opus/opus.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "base/audio_format.h"

namespace sarnet::relay {

// Codes 48 kHz sound into Opus packets of 20 ms with redundancy against loss (in-band FEC), 32
// kbit/s a channel. One thread at a time; allocates in the constructor alone.
class OpusCoder {
 public:
  using Micros = std::chrono::microseconds;
  // A packet whose sound begins at `stamp`, valid during the call; `begins` after silence that was
  // left out.
  using Output =
      std::function<void(std::span<const std::uint8_t> packet, Micros stamp, bool begins)>;

  // `dtx`: silence is sent as a packet every 400 ms. Throws std::bad_alloc.
  OpusCoder(bool stereo, bool dtx, Output output);

  // A block whose first sample belongs to `stamp`; one channel is made two, or two one, as needed.
  // Other rates are passed over.
  void push(const AudioFormat& format, std::span<const std::int16_t> samples, Micros stamp);

 private:
  struct Destroy {
    void operator()(OpusEncoder* encoder) const { opus_encoder_destroy(encoder); }
  };
  static constexpr int kRate = 48000;
  static constexpr std::size_t kFrames = 960;  // of a packet
  // Two bytes say that there is nothing to be said.
  static constexpr int kSilence = 2;

  void code();

  const int channels_;
  const Output output_;
  std::unique_ptr<OpusEncoder, Destroy> encoder_;
  std::array<std::int16_t, 2 * kFrames> samples_{};
  std::size_t filled_ = 0;  // frames
  Micros stamp_{0};         // of the first of them
  bool silent_ = false;
};

}  // namespace sarnet::relay
