#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "base/picture.h"
#include "relay/media/codecs/video_decoder.h"

namespace sarnet::relay {

// Codes pictures of one stream in real time, one after another: no frame refers to a later one, and
// none is held back. The size is that of each picture; another one begins with a key frame. One
// thread at a time.
class VideoEncoder {
 public:
  // A coded frame, valid during the call.
  using Output = std::function<void(std::span<const std::uint8_t> frame)>;

  // Null when there is no encoder to be had.
  static std::unique_ptr<VideoEncoder> create(VideoCodec codec, int fps);
  virtual ~VideoEncoder() = default;

  // `bitrate` in bits a second, for this picture and those after it. False, with nothing put out,
  // when the picture cannot be coded. H.264 leaves out an odd last row and column.
  virtual bool encode(const PictureView& picture, std::uint64_t bitrate, bool key_frame,
                      const Output& output) = 0;
};

// What pictures of that size want: a megabit a second for 640x480 at 30 pictures, larger ones less
// for each pixel; between 100 kbit/s and 6 Mbit/s.
std::uint64_t wanted_bitrate(int width, int height, int fps);

}  // namespace sarnet::relay
