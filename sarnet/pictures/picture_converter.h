#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/picture.h"

namespace sarnet {

// Layouts of packed pixels that a program may hand in.
enum class PixelFormat {
  kI420,    // Y, U, V planes without padding; chroma rounds up
  kRgb24,   // bytes R, G, B in memory
  kArgb32,  // bytes A, R, G, B in memory; alpha is ignored
};

// Bytes that a packed picture needs; 0 for a size that is not positive or above kMaxPictureSide.
inline constexpr int kMaxPictureSide = 16384;
std::size_t packed_size(PixelFormat format, int width, int height);

// Turns packed pictures into I420 of any size and orientation (BT.601 studio range), and scales
// I420. One thread at a time. Allocates scratch memory only when the shape of its work changes.
// Throws nothing but std::bad_alloc.
class PictureConverter {
 public:
  // Converts `pixels`, rotates clockwise by `rotation` (0, 90, 180 or 270 degrees) and scales to
  // the size of `target`, which must not overlap the source. The caller takes care of the aspect
  // ratio. False, with `target` untouched, for a bad rotation or size or when `size` is less than
  // packed_size().
  bool convert(PixelFormat format, int width, int height, const std::uint8_t* pixels,
               std::size_t size, int rotation, const MutablePictureView& target);

  // Scales (or copies, when the sizes are equal) one I420 picture into another.
  static bool scale(const PictureView& source, const MutablePictureView& target);

 private:
  std::vector<std::uint8_t> converted_;
  std::vector<std::uint8_t> rotated_;
};

}  // namespace sarnet
