#include "pictures/picture_converter.h"

#include <libyuv.h>

namespace sarnet {
namespace {

bool valid_size(int width, int height) {
  return width > 0 && height > 0 && width <= kMaxPictureSide && height <= kMaxPictureSide;
}

// A packed I420 picture over `bytes`, which are enlarged if needed.
MutablePictureView packed_view(std::vector<std::uint8_t>& bytes, int width, int height) {
  if (bytes.size() < i420_size(width, height)) bytes.resize(i420_size(width, height));
  const int chroma_width = chroma_size(width);
  std::uint8_t* y = bytes.data();
  std::uint8_t* u = y + static_cast<std::size_t>(width) * height;
  std::uint8_t* v = u + static_cast<std::size_t>(chroma_width) * chroma_size(height);
  return {width, height, y, u, v, width, chroma_width, chroma_width};
}

PictureView read_only(const MutablePictureView& view) {
  return {view.width, view.height,   view.y,        view.u,
          view.v,     view.stride_y, view.stride_u, view.stride_v};
}

// libyuv names packed formats by the order in a little-endian word: its RAW is R, G, B in memory,
// its BGRA is A, R, G, B in memory.
void unpack(PixelFormat format, const std::uint8_t* pixels, const MutablePictureView& out) {
  if (format == PixelFormat::kRgb24) {
    libyuv::RAWToI420(pixels, out.width * 3, out.y, out.stride_y, out.u, out.stride_u, out.v,
                      out.stride_v, out.width, out.height);
  } else {
    libyuv::BGRAToI420(pixels, out.width * 4, out.y, out.stride_y, out.u, out.stride_u, out.v,
                       out.stride_v, out.width, out.height);
  }
}

}  // namespace

std::size_t packed_size(PixelFormat format, int width, int height) {
  if (!valid_size(width, height)) return 0;
  const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  switch (format) {
    case PixelFormat::kI420:
      return i420_size(width, height);
    case PixelFormat::kRgb24:
      return pixels * 3;
    case PixelFormat::kArgb32:
      return pixels * 4;
  }
  return 0;
}

bool PictureConverter::convert(PixelFormat format, int width, int height,
                               const std::uint8_t* pixels, std::size_t size, int rotation,
                               const MutablePictureView& target) {
  const std::size_t needed = packed_size(format, width, height);
  const bool right_angle = rotation == 0 || rotation == 90 || rotation == 180 || rotation == 270;
  if (needed == 0 || pixels == nullptr || size < needed || !right_angle ||
      !valid_size(target.width, target.height)) {
    return false;
  }
  const bool upright = rotation == 0;
  const bool on_its_side = rotation == 90 || rotation == 270;
  const int final_width = on_its_side ? height : width;
  const int final_height = on_its_side ? width : height;
  const bool same_size = target.width == final_width && target.height == final_height;

  PictureView picture;
  if (format == PixelFormat::kI420) {
    const std::uint8_t* u = pixels + static_cast<std::size_t>(width) * height;
    const int chroma_width = chroma_size(width);
    const std::uint8_t* v = u + static_cast<std::size_t>(chroma_width) * chroma_size(height);
    picture = {width, height, pixels, u, v, width, chroma_width, chroma_width};
  } else {
    const MutablePictureView unpacked =
        upright && same_size ? target : packed_view(converted_, width, height);
    unpack(format, pixels, unpacked);
    if (upright && same_size) return true;
    picture = read_only(unpacked);
  }
  if (!upright) {
    const MutablePictureView turned =
        same_size ? target : packed_view(rotated_, final_width, final_height);
    libyuv::I420Rotate(picture.y, picture.stride_y, picture.u, picture.stride_u, picture.v,
                       picture.stride_v, turned.y, turned.stride_y, turned.u, turned.stride_u,
                       turned.v, turned.stride_v, width, height,
                       static_cast<libyuv::RotationMode>(rotation));
    if (same_size) return true;
    picture = read_only(turned);
  }
  return scale(picture, target);
}

bool PictureConverter::scale(const PictureView& source, const MutablePictureView& target) {
  if (!valid_size(source.width, source.height) || !valid_size(target.width, target.height)) {
    return false;
  }
  if (source.width == target.width && source.height == target.height) {
    return libyuv::I420Copy(source.y, source.stride_y, source.u, source.stride_u, source.v,
                            source.stride_v, target.y, target.stride_y, target.u, target.stride_u,
                            target.v, target.stride_v, source.width, source.height) == 0;
  }
  return libyuv::I420Scale(source.y, source.stride_y, source.u, source.stride_u, source.v,
                           source.stride_v, source.width, source.height, target.y, target.stride_y,
                           target.u, target.stride_u, target.v, target.stride_v, target.width,
                           target.height, libyuv::kFilterBox) == 0;
}

}  // namespace sarnet
