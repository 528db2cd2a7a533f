#pragma once

namespace sarnet {

// Interleaved signed 16-bit PCM. A "frame" is one sample for each channel; counts are frames unless
// a comment says samples.
struct AudioFormat {
  static constexpr int kMinRate = 8000;
  static constexpr int kMaxRate = 48000;

  int rate = 48000;  // frames per second
  int channels = 1;  // 1 or 2

  bool valid() const {
    return rate >= kMinRate && rate <= kMaxRate && (channels == 1 || channels == 2);
  }
  // Frames in one period of 10 ms, rounded down as the contract's device does.
  int period_frames() const { return rate / 100; }

  bool operator==(const AudioFormat&) const = default;
};

}  // namespace sarnet
