#pragma once

#include <cstdint>

#include "relay/gst_handles.h"

namespace sarnet::relay {

// Makes reports of loss leave at once. Left alone, the media stack sends one urgent report in five
// seconds, and a second loss freezes the picture until the next. Once media arrive.
void quicken_feedback(GstElement* webrtc);

// Has every report attributed to that stream (see rtcp_order.h), for as long as webrtcbin lives.
void attribute_feedback_to(GstElement* webrtc, std::uint32_t video_ssrc);

}  // namespace sarnet::relay
