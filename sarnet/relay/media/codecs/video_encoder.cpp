#include "relay/media/codecs/video_encoder.h"

#include <algorithm>
#include <cmath>

#include "relay/media/codecs/h264_encoder.h"
#include "relay/media/codecs/vp8_encoder.h"

namespace sarnet::relay {

std::unique_ptr<VideoEncoder> VideoEncoder::create(VideoCodec codec, int fps) {
  return codec == VideoCodec::kVp8 ? make_vp8_encoder(fps) : make_h264_encoder(fps);
}

std::uint64_t wanted_bitrate(int width, int height, int fps) {
  constexpr double kReferencePixels = 640.0 * 480.0 * 30.0;
  constexpr double kReferenceBits = 1e6;
  const double pixels = static_cast<double>(width) * height * fps;
  const double bits = kReferenceBits * std::pow(pixels / kReferencePixels, 0.75);
  return static_cast<std::uint64_t>(std::clamp(bits, 100e3, 6e6));
}

}  // namespace sarnet::relay
