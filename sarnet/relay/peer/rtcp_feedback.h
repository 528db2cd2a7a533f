#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "relay/peer/gst_handles.h"

namespace sarnet::relay {

// Makes what webrtcbin reports of received media leave at once, and in a form that servers
// attribute to the stream it is about (see rtcp_order.h). Left alone, the media stack sends one
// urgent report in five seconds, and the second lost packet freezes the picture until the next.
//
// Before anything is negotiated. `video_ssrc` is 0 until the stream of pictures is known.
void quicken_feedback(GstElement* webrtc, std::shared_ptr<std::atomic<std::uint32_t>> video_ssrc);

}  // namespace sarnet::relay
