#pragma once

#include <cstdint>
#include <optional>

#include "relay/media/packets/rtcp.h"
#include "relay/media/packets/rtp_packet.h"
#include "relay/media/receive/reorder_buffer.h"

namespace sarnet::relay {

// Keeps account of how one source's packets arrive, for the reports to it (RFC 3550, section 6.4.1
// and appendices A.3 and A.8). One thread at a time; allocates nothing.
class Reception {
 public:
  // `clock_rate` in Hz, of the timestamps.
  explicit Reception(unsigned clock_rate) : clock_rate_(clock_rate) {}

  // A new SSRC begins anew.
  void take(const RtpPacket& packet, Micros now);
  void take_sender_report(const SenderInfo& info, Micros now);
  std::optional<std::uint32_t> ssrc() const { return ssrc_; }

  // What to report now; the fraction lost is that since the last call.
  ReportBlock report(Micros now);
  // The same for a report that only carries feedback: begins no new interval.
  ReportBlock peek(Micros now) const;

 private:
  unsigned clock_rate_;
  std::optional<std::uint32_t> ssrc_;
  SequenceUnwrapper sequences_;
  std::int64_t base_ = 0;
  std::int64_t highest_ = 0;
  std::int64_t received_ = 0;
  std::int64_t expected_before_ = 0;
  std::int64_t received_before_ = 0;
  std::uint8_t fraction_ = 0;
  std::optional<std::uint32_t> last_transit_;
  double jitter_ = 0;
  std::uint32_t last_report_ = 0;
  Micros last_report_at_{0};
};

}  // namespace sarnet::relay
