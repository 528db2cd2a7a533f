#include "embedded/companion_media.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <numbers>

namespace sarnet {
namespace {

struct Colour {
  std::uint8_t y, u, v;
};

// White, yellow, cyan, green, magenta, red and blue at 75 %, studio range.
constexpr std::array<Colour, 7> kBars{{{180, 128, 128},
                                       {162, 44, 142},
                                       {131, 156, 44},
                                       {112, 72, 58},
                                       {84, 184, 198},
                                       {65, 100, 212},
                                       {35, 212, 114}}};
constexpr std::uint8_t kBlack = 16;
constexpr std::uint8_t kWhite = 235;
constexpr std::uint8_t kNeutral = 128;

// The marks: one white, one black, 16 bits of the number, and an even parity bit, so that a picture
// without marks is not taken for number 0.
constexpr int kNumberBits = 16;
constexpr int kMarks = 2 + kNumberBits + 1;

// Lower eighth of the picture, at least four rows.
int marks_top(int height) { return height - std::max(4, height / 8); }

int mark_left(int mark, int width) { return mark * width / kMarks; }

bool mark_is_white(int mark, std::uint32_t number) {
  if (mark < 2) return mark == 0;
  if (mark < 2 + kNumberBits) return ((number >> (mark - 2)) & 1U) != 0;
  bool odd = false;
  for (int bit = 0; bit < kNumberBits; ++bit) odd ^= ((number >> bit) & 1U) != 0;
  return odd;
}

// Fills a rectangle with a grey; chroma under it becomes neutral.
void paint_grey(const MutablePictureView& target, int left, int top, int right, int bottom,
                std::uint8_t grey) {
  for (int row = top; row < bottom; ++row) {
    std::memset(target.y + static_cast<std::ptrdiff_t>(row) * target.stride_y + left, grey,
                static_cast<std::size_t>(right - left));
  }
  for (int row = top / 2; row < chroma_size(bottom); ++row) {
    const auto length = static_cast<std::size_t>(chroma_size(right) - left / 2);
    std::memset(target.u + static_cast<std::ptrdiff_t>(row) * target.stride_u + left / 2, kNeutral,
                length);
    std::memset(target.v + static_cast<std::ptrdiff_t>(row) * target.stride_v + left / 2, kNeutral,
                length);
  }
}

Colour background_at(int x, int y, int width, int height) {
  if (y < height * 2 / 3) {
    return kBars[static_cast<std::size_t>(x) * kBars.size() / static_cast<std::size_t>(width)];
  }
  return {static_cast<std::uint8_t>(kBlack + x * (kWhite - kBlack) / width), kNeutral, kNeutral};
}

}  // namespace

TestCard::TestCard(int width, int height)
    : width_(std::max(width, 2)), height_(std::max(height, 2)) {
  background_.reserve(i420_size(width_, height_));
  for (int y = 0; y < height_; ++y) {
    for (int x = 0; x < width_; ++x) background_.push_back(background_at(x, y, width_, height_).y);
  }
  for (const auto plane : {&Colour::u, &Colour::v}) {
    for (int y = 0; y < chroma_size(height_); ++y) {
      for (int x = 0; x < chroma_size(width_); ++x) {
        background_.push_back(background_at(2 * x, 2 * y, width_, height_).*plane);
      }
    }
  }
}

void TestCard::paint(std::uint32_t number, const MutablePictureView& target) const {
  const std::uint8_t* source = background_.data();
  const auto copy_plane = [&source](std::uint8_t* plane, int stride, int width, int height) {
    for (int row = 0; row < height; ++row, source += width) {
      std::memcpy(plane + static_cast<std::ptrdiff_t>(row) * stride, source,
                  static_cast<std::size_t>(width));
    }
  };
  copy_plane(target.y, target.stride_y, width_, height_);
  copy_plane(target.u, target.stride_u, chroma_size(width_), chroma_size(height_));
  copy_plane(target.v, target.stride_v, chroma_size(width_), chroma_size(height_));

  // Back and forth along the middle, once in about eight seconds at 30 fps.
  const int side = std::max(2, height_ / 6);
  const int way = std::max(1, width_ - side);
  const auto position = static_cast<int>(static_cast<std::uint64_t>(number % 240) *
                                         static_cast<std::uint64_t>(2 * way) / 240);
  const int left = position < way ? position : 2 * way - position;
  paint_grey(target, std::max(0, left), height_ / 3, std::min(width_, left + side),
             std::min(height_, height_ / 3 + side), kWhite);

  if (width_ >= kMinSide && height_ >= kMinSide) {
    for (int mark = 0; mark < kMarks; ++mark) {
      paint_grey(target, mark_left(mark, width_), marks_top(height_), mark_left(mark + 1, width_),
                 height_, mark_is_white(mark, number) ? kWhite : kBlack);
    }
  }
}

std::optional<std::uint32_t> TestCard::read_number(const PictureView& picture) {
  if (picture.width < kMinSide || picture.height < kMinSide) return std::nullopt;
  const int row = (marks_top(picture.height) + picture.height) / 2;
  const std::uint8_t* line = picture.y + static_cast<std::ptrdiff_t>(row) * picture.stride_y;
  std::uint32_t number = 0;
  std::array<bool, kMarks> white{};
  for (int mark = 0; mark < kMarks; ++mark) {
    const std::uint8_t level =
        line[(mark_left(mark, picture.width) + mark_left(mark + 1, picture.width)) / 2];
    if (level > kBlack + 64 && level < kWhite - 64) return std::nullopt;
    white[static_cast<std::size_t>(mark)] = level >= 128;
    if (mark >= 2 && mark < 2 + kNumberBits && level >= 128) number |= 1U << (mark - 2);
  }
  for (int mark = 0; mark < kMarks; ++mark) {
    if (white[static_cast<std::size_t>(mark)] != mark_is_white(mark, number)) return std::nullopt;
  }
  return number;
}

Tone::Tone(AudioFormat format, double frequency, double amplitude)
    : format_(format),
      step_(2 * std::numbers::pi * frequency / format.rate),
      amplitude_(std::clamp(amplitude, 0.0, 1.0) * 32767) {}

void Tone::fill(std::span<std::int16_t> samples) {
  const auto channels = static_cast<std::size_t>(format_.channels);
  for (std::size_t i = 0; i + channels <= samples.size(); i += channels) {
    const auto value = static_cast<std::int16_t>(std::lround(amplitude_ * std::sin(phase_)));
    std::fill_n(samples.data() + i, channels, value);
    phase_ += step_;
    if (phase_ > 2 * std::numbers::pi) phase_ -= 2 * std::numbers::pi;
  }
}

}  // namespace sarnet
