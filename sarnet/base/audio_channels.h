#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace sarnet {

// Copies `frames` frames of 16-bit samples from one count of channels, 1 or 2, to another: mono
// goes to both channels, stereo becomes the mean of its two. The buffers must not overlap.
inline void convert_channels(const std::int16_t* input, int input_channels, std::int16_t* output,
                             int output_channels, std::size_t frames) {
  if (input_channels == output_channels) {
    std::copy_n(input, frames * static_cast<std::size_t>(input_channels), output);
  } else if (output_channels == 2) {
    for (std::size_t i = 0; i < frames; ++i) output[2 * i] = output[2 * i + 1] = input[i];
  } else {
    for (std::size_t i = 0; i < frames; ++i) {
      output[i] = static_cast<std::int16_t>((input[2 * i] + input[2 * i + 1]) / 2);
    }
  }
}

}  // namespace sarnet
