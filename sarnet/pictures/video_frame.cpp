#include "pictures/video_frame.h"

#include <utility>

namespace sarnet {
namespace {

std::optional<PixelFormat> known_layout(int format) {
  switch (format) {
    case SRN_VIDEO_FRAME_FORMAT_YUV420P:
      return PixelFormat::kI420;
    case SRN_VIDEO_FRAME_FORMAT_RGB24:
      return PixelFormat::kRgb24;
    case SRN_VIDEO_FRAME_FORMAT_ARGB32:
      return PixelFormat::kArgb32;
    default:
      return std::nullopt;
  }
}

// 0 for layouts that are not packed.
int bytes_per_pixel(int format) {
  switch (format) {
    case SRN_VIDEO_FRAME_FORMAT_YUY2:
    case SRN_VIDEO_FRAME_FORMAT_UYVY:
      return 2;
    case SRN_VIDEO_FRAME_FORMAT_RGB24:
      return 3;
    case SRN_VIDEO_FRAME_FORMAT_ARGB32:
    case SRN_VIDEO_FRAME_FORMAT_BGRA32:
    case SRN_VIDEO_FRAME_FORMAT_ABGR32:
    case SRN_VIDEO_FRAME_FORMAT_RGBA32:
      return 4;
    default:
      return 0;
  }
}

bool is_two_plane(int format) {
  return format == SRN_VIDEO_FRAME_FORMAT_NV12 || format == SRN_VIDEO_FRAME_FORMAT_NV21;
}

std::size_t bytes_needed(int format, int width, int height) {
  const auto pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  if (format == SRN_VIDEO_FRAME_FORMAT_YUV420P || is_two_plane(format)) {
    return i420_size(width, height);
  }
  return pixels * static_cast<std::size_t>(bytes_per_pixel(format));
}

}  // namespace

bool VideoFrame::valid(int format, int width, int height, const std::uint8_t* buffer,
                       std::size_t size) {
  if (buffer == nullptr || width < 1 || height < 1 || width > kMaxPictureSide ||
      height > kMaxPictureSide) {
    return false;
  }
  const bool pixels = format > SRN_VIDEO_FRAME_FORMAT_UNKNOWN &&
                      format < SRN_VIDEO_FRAME_FORMAT_MAX && format != SRN_VIDEO_FRAME_FORMAT_MJPEG;
  return pixels && size >= bytes_needed(format, width, height);
}

std::pmr::memory_resource* VideoFrame::memory() {
  // Never destroyed: a program may delete its last frame while the process exits.
  static auto* const pool = new std::pmr::synchronized_pool_resource;
  return pool;
}

VideoFrame::VideoFrame(srn_video_frame_format format, int width, int height,
                       const std::uint8_t* buffer, std::size_t size, Release release)
    : format_(format),
      width_(width),
      height_(height),
      buffer_(buffer),
      size_(size),
      release_(release) {}

VideoFrame::VideoFrame(PictureRef picture)
    : format_(SRN_VIDEO_FRAME_FORMAT_YUV420P),
      width_(picture->width()),
      height_(picture->height()),
      picture_(std::move(picture)),
      buffer_(picture_->data()),
      size_(picture_->size()) {}

VideoFrame::~VideoFrame() {
  if (release_.callback != nullptr) release_.callback(release_.argument);
}

const std::uint8_t* VideoFrame::plane(int index) const {
  const int rows = plane_height(index);
  if (rows == 0) return nullptr;
  const std::uint8_t* start = buffer_;
  for (int before = 0; before < index; ++before) {
    start += static_cast<std::ptrdiff_t>(stride(before)) * plane_height(before);
  }
  return start;
}

int VideoFrame::stride(int index) const {
  if (plane_height(index) == 0) return 0;
  if (const int bytes = bytes_per_pixel(format_)) return width_ * bytes;
  if (index == SRN_VIDEO_FRAME_PLANE_Y) return width_;
  return is_two_plane(format_) ? 2 * chroma_size(width_) : chroma_size(width_);
}

int VideoFrame::plane_height(int index) const {
  int planes = 1;
  if (format_ == SRN_VIDEO_FRAME_FORMAT_YUV420P) planes = 3;
  if (is_two_plane(format_)) planes = 2;
  if (index < 0 || index >= planes) return 0;
  return index == 0 ? height_ : chroma_size(height_);
}

std::optional<PixelFormat> VideoFrame::pixel_format() const { return known_layout(format_); }

}  // namespace sarnet
