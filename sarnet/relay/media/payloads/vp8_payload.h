#pragma once

#include <optional>

#include "relay/media/packets/bytes.h"

namespace sarnet::relay {

// What one RTP packet carries of a VP8 frame (RFC 7741).
struct Vp8Payload {
  bool begins_frame = false;  // the first packet of a frame
  Bytes data;                 // of the frame, without the descriptor; borrowed
};

// Nothing when the descriptor is damaged or no data follow it.
std::optional<Vp8Payload> parse_vp8_payload(Bytes payload);

// The beginning of a frame (RFC 6386, section 9.1).
struct Vp8FrameHeader {
  bool is_key = false;
  int width = 0;  // of key frames
  int height = 0;
};
// Nothing when `frame` is no VP8 frame, or a key frame that does not say its size.
std::optional<Vp8FrameHeader> parse_vp8_frame(Bytes frame);

}  // namespace sarnet::relay
