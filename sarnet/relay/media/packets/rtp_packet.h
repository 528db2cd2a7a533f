#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <type_traits>

#include "relay/media/packets/bytes.h"

namespace sarnet::relay {

// The largest packet that is sent: 1200 bytes of RTP leave room for SRTP's tag, UDP and IP on any
// way, with a tunnel or two (RFC 8831 and what browsers do).
inline constexpr std::size_t kMaxPacket = 1200;
// The largest that is accepted: an Ethernet frame's payload.
inline constexpr std::size_t kMaxReceived = 1500;

// One RTP packet (RFC 3550, section 5.1) as it was received; borrows its bytes.
struct RtpPacket {
  std::uint8_t payload_type = 0;
  bool marker = false;
  std::uint16_t sequence = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t ssrc = 0;
  Bytes payload;  // without padding; empty for a packet that only fills the way
};

// Nothing when the bytes are no whole RTP packet of version 2.
std::optional<RtpPacket> parse_rtp(Bytes bytes);

// What a packet of ours says of itself.
struct RtpHeader {
  std::uint8_t payload_type = 0;
  bool marker = false;
  std::uint16_t sequence = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t ssrc = 0;
};

// Writes header and payload; the number of bytes, or 0 when `target` is too small.
std::size_t write_rtp(const RtpHeader& header, Bytes payload, std::span<std::uint8_t> target);

// Sequence numbers and timestamps, which wrap, as numbers that do not: the one nearest to the last.
// A first number stands for itself.
template <class Number>
class Unwrapper {
 public:
  Unwrapper() = default;
  // Goes on from `value`, the place of `number` from now on.
  Unwrapper(std::int64_t value, Number number) : last_(value), shift_(value - number) {}

  std::int64_t unwrap(Number number) {
    if (!last_) {
      last_ = number;
    } else {
      const auto step = static_cast<Number>(number - static_cast<Number>(*last_ - shift_));
      *last_ += static_cast<std::make_signed_t<Number>>(step);
    }
    return *last_;
  }
  // Between a value and what the wire says of it.
  std::int64_t shift() const { return shift_; }
  // Where `number` lies, without going there.
  std::int64_t peek(Number number) const {
    Unwrapper copy = *this;
    return copy.unwrap(number);
  }

 private:
  std::optional<std::int64_t> last_;
  std::int64_t shift_ = 0;
};
using SequenceUnwrapper = Unwrapper<std::uint16_t>;
using TimestampUnwrapper = Unwrapper<std::uint32_t>;

}  // namespace sarnet::relay
