#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "relay/media/packets/bytes.h"

namespace sarnet::relay {

// The next unit of a byte stream with start codes (Annex B), taken off `stream`; empty at its end.
inline Bytes next_h264_unit(Bytes& stream) {
  const auto start_code = [&](std::size_t from) {
    for (std::size_t at = from; at + 3 <= stream.size(); ++at) {
      if (stream[at] == 0 && stream[at + 1] == 0 && stream[at + 2] == 1) return at;
    }
    return stream.size();
  };
  const std::size_t begin = std::min(start_code(0) + 3, stream.size());
  const std::size_t end = start_code(begin);
  Bytes unit = stream.subspan(begin, end - begin);
  while (!unit.empty() && unit.back() == 0) unit = unit.first(unit.size() - 1);
  stream = stream.subspan(end);
  return unit;
}

// Cuts an H.264 frame, a byte stream with start codes, into RTP payloads of at most `most` bytes
// (RFC 6184, mode 1: single units and FU-A), and hands them on: send(payload, is_last).
template <class Send>
void packetise_h264(Bytes frame, std::size_t most, Send&& send) {
  std::array<std::uint8_t, 1500> payload;
  most = std::min(most, payload.size());
  for (Bytes unit = next_h264_unit(frame); !unit.empty();) {
    const Bytes next = next_h264_unit(frame);
    if (unit.size() <= most) {
      send(unit, next.empty());
    } else {
      const std::uint8_t header = unit.front();
      Bytes rest = unit.subspan(1);
      for (bool begins = true; !rest.empty(); begins = false) {
        const Bytes part = rest.first(std::min(most - 2, rest.size()));
        rest = rest.subspan(part.size());
        payload[0] = static_cast<std::uint8_t>((header & 0xE0U) | 28U);
        payload[1] = static_cast<std::uint8_t>((begins ? 0x80U : 0U) | (rest.empty() ? 0x40U : 0U) |
                                               (header & 0x1FU));
        std::copy(part.begin(), part.end(), payload.begin() + 2);
        send(Bytes(payload).first(2 + part.size()), rest.empty() && next.empty());
      }
    }
    unit = next;
  }
}

}  // namespace sarnet::relay
