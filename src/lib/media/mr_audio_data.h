#pragma once

#include <sarnet/sarnet.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace MRAudio {
/// All audio is interleaved signed 16-bit PCM.
using sample_t = std::int16_t;

/// The most samples, of all channels together, that any buffer holds: 300 s at 48 kHz stereo.
inline constexpr std::size_t kMaxBufferedSamples = 28'800'000;

struct PeriodSize {
  std::size_t frames;
  std::size_t samples;  ///< of all channels together
};

/// The size of a period in that format, rounded down; empty for a negative figure and for a period
/// that no buffer could hold. Zeros are allowed and give an empty period.
std::optional<PeriodSize> periodSize(int sample_rate, int channels,
                                     std::chrono::milliseconds period);

}  // namespace MRAudio

/// A borrowed block of samples, valid for one call. Owns nothing.
struct MRAudioData {
  MRAudioData(const void* sample_buffer, int sample_rate, std::size_t number_of_channels,
              std::size_t number_of_frames);

  /// The library counts samples per channel, which are frames here. A null record gives no samples.
  explicit MRAudioData(const srn_audio_data* audio_data);

  /// Samples of all channels together; empty when the counts are too large to multiply.
  std::optional<std::size_t> sampleCount() const;

  /// Bytes of the block; 0 when the counts are too large to multiply.
  std::size_t bufferSize() const;

  /// True when every byte of the block is 0, or it has none. Scans the block.
  bool isBufferEmpty() const;

  const void* sample_buffer_;
  int sample_rate_;  ///< samples per second of one channel
  std::size_t number_of_channels_;
  std::size_t number_of_frames_;  ///< samples of one channel
};
