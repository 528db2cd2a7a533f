#pragma once

#include <sarnet/sarnet.h>

#include <memory>
#include <memory_resource>
#include <optional>
#include <utility>

#include "base/picture.h"
#include "pictures/picture_converter.h"

namespace sarnet {

// The object behind srn_video_frame: either the program's packed pixels, wrapped, or one of our
// pictures. Constant while the program can see it; any thread reads it.
class VideoFrame {
 public:
  struct Release {
    srn_video_frame_memory_release_callback callback = nullptr;
    void* argument = nullptr;
  };

  // Nothing for a format that is not a layout of pixels, a size that is not positive, no buffer, or
  // one that is too short for a layout that we know.
  static bool valid(int format, int width, int height, const std::uint8_t* buffer,
                    std::size_t size);

  // Made by a constructor below, in recycled memory: frames are made at the media's rate.
  template <class... Arguments>
  static std::shared_ptr<VideoFrame> make(Arguments&&... arguments) {
    return std::allocate_shared<VideoFrame>(std::pmr::polymorphic_allocator<VideoFrame>(memory()),
                                            std::forward<Arguments>(arguments)...);
  }

  VideoFrame(srn_video_frame_format format, int width, int height, const std::uint8_t* buffer,
             std::size_t size, Release release);
  explicit VideoFrame(PictureRef picture);
  // Calls the program's release callback, if any.
  ~VideoFrame();
  VideoFrame(const VideoFrame&) = delete;
  VideoFrame& operator=(const VideoFrame&) = delete;

  srn_video_frame_format format() const { return format_; }
  int width() const { return width_; }
  int height() const { return height_; }
  const std::uint8_t* buffer() const { return buffer_; }
  std::size_t size() const { return size_; }

  // Planes of I420, NV12 and NV21, and the one plane of packed pixels; null and 0 for others.
  const std::uint8_t* plane(int index) const;
  int stride(int index) const;
  int plane_height(int index) const;

  // The layout for PictureConverter, if it is one that we convert.
  std::optional<PixelFormat> pixel_format() const;

 private:
  static std::pmr::memory_resource* memory();

  const srn_video_frame_format format_;
  const int width_;
  const int height_;
  const PictureRef picture_;
  const std::uint8_t* const buffer_;
  const std::size_t size_;
  const Release release_;
};

}  // namespace sarnet
