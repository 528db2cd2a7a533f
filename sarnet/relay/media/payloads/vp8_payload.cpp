#include "relay/media/payloads/vp8_payload.h"

namespace sarnet::relay {

std::optional<Vp8Payload> parse_vp8_payload(Bytes payload) {
  ByteReader reader(payload);
  const std::uint8_t head = reader.u8();
  if ((head & 0x80U) != 0) {
    const std::uint8_t extensions = reader.u8();
    if ((extensions & 0x80U) != 0 && (reader.u8() & 0x80U) != 0) reader.skip(1);  // picture id
    if ((extensions & 0x40U) != 0) reader.skip(1);                                // TL0PICIDX
    if ((extensions & 0x30U) != 0) reader.skip(1);                                // TID, KEYIDX
  }
  if (!reader.ok() || reader.left() == 0) return std::nullopt;
  const bool begins_partition = (head & 0x10U) != 0;
  return Vp8Payload{begins_partition && (head & 7U) == 0, reader.rest()};
}

std::optional<Vp8FrameHeader> parse_vp8_frame(Bytes frame) {
  ByteReader reader(frame);
  Vp8FrameHeader header;
  header.is_key = (reader.u8() & 1U) == 0;
  reader.skip(2);
  if (!header.is_key) return reader.ok() ? std::optional(header) : std::nullopt;
  constexpr std::uint32_t kStartCode = 0x9D012A;
  const bool starts = reader.u24() == kStartCode;
  // Little-endian, fourteen bits each; two bits of scaling that nobody uses.
  const auto size = [&reader] {
    const std::uint8_t low = reader.u8();
    return (reader.u8() & 0x3F) << 8 | low;
  };
  header.width = size();
  header.height = size();
  if (!reader.ok() || !starts || header.width == 0 || header.height == 0) return std::nullopt;
  return header;
}

}  // namespace sarnet::relay
