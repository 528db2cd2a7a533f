#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace sarnet {

// Sums any number of sources of one format, with saturation at the end only, so that the order of
// the sources does not matter. One thread at a time. The constructor allocates, nothing else does.
class AudioMixer {
 public:
  // `max_samples` (frames times channels) is the largest block that will be mixed.
  explicit AudioMixer(std::size_t max_samples);

  // Starts a block of `samples` samples of silence; more than the maximum is cut to it.
  void start(std::size_t samples);
  // Adds a source; samples beyond the block's end are ignored, a shorter source adds silence there.
  void add(std::span<const std::int16_t> source);
  // How many sources the block has.
  // Writes the saturated sum: min(block, output) samples, and silence into the rest of `output`.
  void finish(std::span<std::int16_t> output) const;

 private:
  std::vector<std::int32_t> sum_;
  std::size_t length_ = 0;
  std::size_t sources_ = 0;
};

}  // namespace sarnet
