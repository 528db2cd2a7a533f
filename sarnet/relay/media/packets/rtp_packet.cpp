#include "relay/media/packets/rtp_packet.h"

namespace sarnet::relay {
namespace {

constexpr unsigned kVersion = 2;

}  // namespace

std::optional<RtpPacket> parse_rtp(Bytes bytes) {
  ByteReader reader(bytes);
  RtpPacket packet;
  const std::uint8_t first = reader.u8();
  const std::uint8_t second = reader.u8();
  packet.marker = (second & 0x80U) != 0;
  packet.payload_type = second & 0x7FU;
  packet.sequence = reader.u16();
  packet.timestamp = reader.u32();
  packet.ssrc = reader.u32();
  reader.skip(std::size_t{4} * (first & 15U));  // contributing sources
  if ((first & 0x10U) != 0) {
    reader.skip(2);  // which extension
    reader.skip(std::size_t{4} * reader.u16());
  }
  if (!reader.ok() || first >> 6 != kVersion) return std::nullopt;
  packet.payload = reader.rest();
  if ((first & 0x20U) != 0) {
    const std::size_t padding = packet.payload.empty() ? 0 : packet.payload.back();
    if (padding == 0 || padding > packet.payload.size()) return std::nullopt;
    packet.payload = packet.payload.first(packet.payload.size() - padding);
  }
  return packet;
}

std::size_t write_rtp(const RtpHeader& header, Bytes payload, std::span<std::uint8_t> target) {
  ByteWriter writer(target);
  writer.u8(static_cast<std::uint8_t>(kVersion << 6));
  writer.u8(static_cast<std::uint8_t>((header.marker ? 0x80U : 0U) | header.payload_type));
  writer.u16(header.sequence);
  writer.u32(header.timestamp);
  writer.u32(header.ssrc);
  writer.bytes(payload);
  return writer.ok() ? writer.size() : 0;
}

}  // namespace sarnet::relay
