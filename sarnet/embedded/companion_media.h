#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/audio_format.h"
#include "base/picture.h"

namespace sarnet {

// Paints a moving test card: colour bars above, a grey ramp below, a white box that crosses the
// picture, and the picture's number as a row of black and white marks along the lower edge, which
// read_number() decodes, also from a scaled copy. One thread at a time; the constructor allocates,
// painting does not.
class TestCard {
 public:
  static constexpr int kMinSide = 32;  // a smaller card has no marks

  // Sizes in pixels, odd ones included; values below 2 count as 2.
  TestCard(int width, int height);

  // `target` must have the card's size.
  void paint(std::uint32_t number, const MutablePictureView& target) const;

  // The number painted into a card, or nothing when the marks are not there.
  static std::optional<std::uint32_t> read_number(const PictureView& picture);

  int width() const { return width_; }
  int height() const { return height_; }

 private:
  int width_;
  int height_;
  std::vector<std::uint8_t> background_;  // packed I420
};

// A sine tone, continuous from block to block. One thread at a time; no allocation.
class Tone {
 public:
  // Frequency in hertz, below half the rate; amplitude from 0 to 1 of full scale.
  Tone(AudioFormat format, double frequency, double amplitude = 0.25);

  // Fills whole frames; every channel carries the same.
  void fill(std::span<std::int16_t> samples);

 private:
  AudioFormat format_;
  double step_;       // radians a frame
  double amplitude_;  // in sample units
  double phase_ = 0;
};

}  // namespace sarnet
