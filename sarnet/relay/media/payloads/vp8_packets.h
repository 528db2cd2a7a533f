#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "relay/media/packets/bytes.h"

namespace sarnet::relay {

// Cuts a VP8 frame into RTP payloads of at most `most` bytes (RFC 7741), with the low fifteen bits
// of `picture_id` in each, and hands them on: send(payload, is_last). The parts are of equal size,
// so that losing any one of them costs the same.
template <class Send>
void packetise_vp8(Bytes frame, std::uint16_t picture_id, std::size_t most, Send&& send) {
  constexpr std::size_t kDescriptor = 4;
  std::array<std::uint8_t, 1500> payload;
  most = std::min(most, payload.size()) - kDescriptor;
  const std::size_t parts = (frame.size() + most - 1) / most;
  for (std::size_t part = 0, at = 0; part < parts; ++part) {
    const std::size_t size = (frame.size() - at + parts - part - 1) / (parts - part);
    payload[0] = static_cast<std::uint8_t>(0x80U | (part == 0 ? 0x10U : 0U));
    payload[1] = 0x80;
    payload[2] = static_cast<std::uint8_t>(0x80U | (picture_id >> 8 & 0x7FU));
    payload[3] = static_cast<std::uint8_t>(picture_id);
    const Bytes data = frame.subspan(at, size);
    std::copy(data.begin(), data.end(), payload.begin() + kDescriptor);
    send(Bytes(payload).first(kDescriptor + size), part + 1 == parts);
    at += size;
  }
}

}  // namespace sarnet::relay
