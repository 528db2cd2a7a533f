#pragma once

#include <cstdint>
#include <vector>

#include "relay/media/packets/bytes.h"

namespace sarnet::relay {

// Puts H.264 frames together from RTP packets (RFC 6184: single NAL units, STAP-A and FU-A) as a
// byte stream with start codes (Annex B), in memory of the caller's.
class H264Assembler {
 public:
  // Appends what the packet carries to `frame`; false when it is damaged, out of place or of a kind
  // that packetisation mode 1 does not know.
  bool append(Bytes payload, std::vector<std::uint8_t>& frame);
  // Whether there is a key picture among what was appended since reset().
  bool is_key() const { return is_key_; }
  // Whether a fragmented unit lacks its end.
  bool is_open() const { return fragment_open_; }
  // Before each frame, and after a loss.
  void reset();

 private:
  void begin_unit(std::uint8_t header, std::vector<std::uint8_t>& frame);

  bool is_key_ = false;
  bool fragment_open_ = false;
};

// Whether a packet is by its kind the first of a key frame: it begins with parameters.
bool begins_h264_key_frame(Bytes payload);

}  // namespace sarnet::relay
