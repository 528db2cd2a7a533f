#include "relay/media/payloads/h264_payload.h"

namespace sarnet::relay {
namespace {

constexpr unsigned kKeyPicture = 5;
constexpr unsigned kLastSingleUnit = 23;
constexpr unsigned kAggregate = 24;  // STAP-A
constexpr unsigned kFragment = 28;   // FU-A
constexpr unsigned kSequenceParameters = 7;
constexpr unsigned kTypeBits = 0x1F;

}  // namespace

void H264Assembler::reset() {
  is_key_ = false;
  fragment_open_ = false;
}

void H264Assembler::begin_unit(std::uint8_t header, std::vector<std::uint8_t>& frame) {
  if ((header & kTypeBits) == kKeyPicture) is_key_ = true;
  for (const std::uint8_t byte :
       {std::uint8_t{0}, std::uint8_t{0}, std::uint8_t{0}, std::uint8_t{1}, header}) {
    frame.push_back(byte);
  }
}

bool H264Assembler::append(Bytes payload, std::vector<std::uint8_t>& frame) {
  ByteReader reader(payload);
  const std::uint8_t head = reader.u8();
  const unsigned type = head & kTypeBits;
  if (!reader.ok() || reader.left() == 0) return false;
  if (type == kFragment) {
    const std::uint8_t fragment = reader.u8();
    const bool begins = (fragment & 0x80U) != 0;
    if (reader.left() == 0 || begins == fragment_open_) return false;
    if (begins) {
      begin_unit(static_cast<std::uint8_t>((head & 0xE0U) | (fragment & kTypeBits)), frame);
    }
    fragment_open_ = (fragment & 0x40U) == 0;
    const Bytes data = reader.rest();
    frame.insert(frame.end(), data.begin(), data.end());
    return true;
  }
  if (fragment_open_) return false;
  if (type == kAggregate) {
    while (reader.left() != 0) {
      const Bytes unit = reader.take(reader.u16());
      if (!reader.ok() || unit.empty()) return false;
      begin_unit(unit.front(), frame);
      frame.insert(frame.end(), unit.begin() + 1, unit.end());
    }
    return true;
  }
  if (type == 0 || type > kLastSingleUnit) return false;
  begin_unit(head, frame);
  const Bytes data = reader.rest();
  frame.insert(frame.end(), data.begin(), data.end());
  return true;
}

bool begins_h264_key_frame(Bytes payload) {
  ByteReader reader(payload);
  unsigned type = reader.u8() & kTypeBits;
  if (type == kAggregate) {
    reader.skip(2);
    type = reader.u8() & kTypeBits;
  }
  return reader.ok() && type == kSequenceParameters;
}

}  // namespace sarnet::relay
