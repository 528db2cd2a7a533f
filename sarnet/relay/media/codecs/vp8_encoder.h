#pragma once

#include "relay/media/codecs/video_encoder.h"

namespace sarnet::relay {

// By libvpx: realtime at a fixed speed, constant rate with half a second of credit, key frames when
// asked for alone.
std::unique_ptr<VideoEncoder> make_vp8_encoder(int fps);

}  // namespace sarnet::relay
