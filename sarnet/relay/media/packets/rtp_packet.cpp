#include "relay/media/packets/rtp_packet.h"

namespace sarnet::relay {
namespace {

constexpr unsigned kVersion = 2;
constexpr std::uint16_t kOneByteForm = 0xBEDE;
constexpr std::uint16_t kTwoByteForm = 0x1000;  // with four bits that belong to the application
constexpr std::uint8_t kPadding = 0;
constexpr std::uint8_t kEndOfOneByteForm = 15;

}  // namespace

std::optional<Bytes> RtpPacket::find_extension(std::uint8_t id) const {
  const bool one_byte = extension_profile == kOneByteForm;
  if (!one_byte && (extension_profile & 0xFFF0U) != kTwoByteForm) return std::nullopt;
  ByteReader reader(extension);
  while (reader.left() != 0) {
    const std::uint8_t head = reader.u8();
    if (head == kPadding) continue;
    const std::uint8_t found = one_byte ? head >> 4 : head;
    if (one_byte && found == kEndOfOneByteForm) break;
    const std::size_t length = one_byte ? (head & 15U) + std::size_t{1} : reader.u8();
    const Bytes data = reader.take(length);
    if (!reader.ok()) break;
    if (found == id) return data;
  }
  return std::nullopt;
}

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
    packet.extension_profile = reader.u16();
    packet.extension = reader.take(std::size_t{4} * reader.u16());
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
  const bool extended = header.mid_id != 0 && !header.mid.empty() && header.mid.size() <= 16;
  ByteWriter writer(target);
  writer.u8(static_cast<std::uint8_t>(kVersion << 6 | (extended ? 0x10U : 0U)));
  writer.u8(static_cast<std::uint8_t>((header.marker ? 0x80U : 0U) | header.payload_type));
  writer.u16(header.sequence);
  writer.u32(header.timestamp);
  writer.u32(header.ssrc);
  if (extended) {
    const std::size_t words = (1 + header.mid.size() + 3) / 4;
    writer.u16(kOneByteForm);
    writer.u16(static_cast<std::uint16_t>(words));
    writer.u8(static_cast<std::uint8_t>(header.mid_id << 4 | (header.mid.size() - 1)));
    writer.bytes(header.mid);
    writer.zeros(words * 4 - 1 - header.mid.size());
  }
  writer.bytes(payload);
  return writer.ok() ? writer.size() : 0;
}

bool is_rtcp(Bytes packet) {
  // RTP's payload types 64 to 95 with the marker are left free for RTCP's types 192 to 223.
  return packet.size() >= 2 && packet[1] >= 192 && packet[1] <= 223;
}

}  // namespace sarnet::relay
