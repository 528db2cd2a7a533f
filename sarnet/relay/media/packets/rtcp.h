#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "relay/media/packets/bytes.h"

// RTCP (RFC 3550, section 6; feedback RFC 4585 and 5104; REMB draft-alvestrand-rmcat-remb-03), as
// much of it as the server speaks: compound packets are taken apart for a handler, and put together
// by a writer. No allocation, no state but the writer's.
namespace sarnet::relay {

// What one source's packets were like since the last report, and on the whole.
struct ReportBlock {
  std::uint32_t ssrc = 0;
  std::uint8_t fraction_lost = 0;        // of 256, since the last report
  std::int32_t cumulative_lost = 0;      // 24 bits, signed; saturates
  std::uint32_t highest_sequence = 0;    // with the count of wraps in the upper half
  std::uint32_t jitter = 0;              // in units of the media clock
  std::uint32_t last_sender_report = 0;  // the middle half of its NTP time; 0: none yet
  std::uint32_t delay_since = 0;         // since then, in 1/65536 s
};

// The sender's clocks at one moment.
struct SenderInfo {
  std::uint64_t ntp = 0;  // seconds since 1900, 32.32 fixed point
  std::uint32_t rtp_timestamp = 0;
  std::uint32_t packets = 0;
  std::uint32_t octets = 0;
};

// Told of what a compound packet holds, in order; `sender` and `media` are SSRCs. Whatever is not
// overridden is passed over.
class RtcpHandler {
 public:
  virtual ~RtcpHandler() = default;
  virtual void on_sender_report(std::uint32_t /*sender*/, const SenderInfo& /*info*/) {}
  // Of sender and receiver reports alike.
  virtual void on_report_block(std::uint32_t /*sender*/, const ReportBlock& /*block*/) {}
  virtual void on_nack(std::uint32_t /*media*/, std::uint16_t /*sequence*/) {}
  virtual void on_picture_loss(std::uint32_t /*media*/) {}  // PLI, and each entry of a FIR
  virtual void on_bitrate_limit(std::uint64_t /*bits_per_second*/) {}  // REMB
  virtual void on_goodbye(std::uint32_t /*ssrc*/) {}
};

// Hands what `bytes` hold to the handler, up to the first part that is damaged; false if there was
// one. Parts of other kinds are passed over.
bool parse_rtcp(Bytes bytes, RtcpHandler& handler);

// Puts a compound packet together, in memory of its own. Add the report first: the server takes the
// medium that feedback is about from the first report block, so that the block of the medium that
// is asked for must be the report's first.
class RtcpWriter {
 public:
  static constexpr std::size_t kMaxSize = 1200;
  static constexpr std::size_t kMaxBlocks = 31;

  // Each gives false, and adds nothing, when it no longer fits.
  bool sender_report(std::uint32_t sender, const SenderInfo& info,
                     std::span<const ReportBlock> blocks);
  bool receiver_report(std::uint32_t sender, std::span<const ReportBlock> blocks);
  bool description(std::uint32_t ssrc, std::span<const char> cname);  // up to 255 bytes
  // Takes as many of the ascending, unwrapped sequence numbers as fit, and says how many.
  std::size_t nack(std::uint32_t sender, std::uint32_t media,
                   std::span<const std::int64_t> sequences);
  bool picture_loss(std::uint32_t sender, std::uint32_t media);
  bool bitrate_limit(std::uint32_t sender, std::uint64_t bits_per_second,
                     std::span<const std::uint32_t> media);

  Bytes bytes() const { return Bytes(bytes_).first(size_); }
  bool empty() const { return size_ == 0; }
  void clear() { size_ = 0; }

 private:
  template <class Body>
  bool add(unsigned count, unsigned type, Body&& body);

  std::array<std::uint8_t, kMaxSize> bytes_{};
  std::size_t size_ = 0;
};

}  // namespace sarnet::relay
