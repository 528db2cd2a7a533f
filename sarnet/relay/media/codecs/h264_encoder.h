#pragma once

#include "relay/media/codecs/video_encoder.h"

namespace sarnet::relay {

// By libavcodec's libx264: constrained baseline, without delay, key frames when asked for alone,
// each with its parameters. Null when there is none.
std::unique_ptr<VideoEncoder> make_h264_encoder(int fps);

}  // namespace sarnet::relay
