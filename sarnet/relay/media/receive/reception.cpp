#include "relay/media/receive/reception.h"

#include <algorithm>
#include <cmath>

namespace sarnet::relay {

void Reception::take(const RtpPacket& packet, Micros now) {
  if (ssrc_ != packet.ssrc) {
    *this = Reception(clock_rate_);
    ssrc_ = packet.ssrc;
    base_ = highest_ = sequences_.unwrap(packet.sequence);
  }
  ++received_;
  if (const std::int64_t sequence = sequences_.peek(packet.sequence); sequence > highest_) {
    highest_ = sequences_.unwrap(packet.sequence);
  }
  const auto arrival = static_cast<std::uint32_t>(now.count() * clock_rate_ / 1'000'000);
  const std::uint32_t transit = arrival - packet.timestamp;
  if (last_transit_) {
    const double step =
        std::abs(static_cast<double>(static_cast<std::int32_t>(transit - *last_transit_)));
    jitter_ += (step - jitter_) / 16;
  }
  last_transit_ = transit;
}

void Reception::take_sender_report(const SenderInfo& info, Micros now) {
  last_report_ = static_cast<std::uint32_t>(info.ntp >> 16);
  last_report_at_ = now;
}

ReportBlock Reception::peek(Micros now) const {
  ReportBlock block;
  block.ssrc = ssrc_.value_or(0);
  block.fraction_lost = fraction_;
  block.cumulative_lost = static_cast<std::int32_t>(
      std::clamp<std::int64_t>(highest_ - base_ + 1 - received_, -0x800000, 0x7FFFFF));
  block.highest_sequence = static_cast<std::uint32_t>(highest_);
  block.jitter = static_cast<std::uint32_t>(std::min(jitter_, 4e9));
  block.last_sender_report = last_report_;
  if (last_report_ != 0) {
    const auto since = (now - last_report_at_).count() * 65536 / 1'000'000;
    block.delay_since = static_cast<std::uint32_t>(std::clamp<std::int64_t>(since, 0, UINT32_MAX));
  }
  return block;
}

ReportBlock Reception::report(Micros now) {
  const std::int64_t expected = highest_ - base_ + 1;
  const std::int64_t due = expected - expected_before_;
  const std::int64_t lost = due - (received_ - received_before_);
  fraction_ = due <= 0 || lost <= 0
                  ? std::uint8_t{0}
                  : static_cast<std::uint8_t>(std::min<std::int64_t>(255, lost * 256 / due));
  expected_before_ = expected;
  received_before_ = received_;
  return peek(now);
}

}  // namespace sarnet::relay
