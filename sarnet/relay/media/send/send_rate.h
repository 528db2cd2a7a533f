#pragma once

#include <cstdint>

#include "relay/media/packets/bytes.h"

namespace sarnet::relay {

// How many bits of pictures a second the way takes, judged by what the other side reports: its
// limit (REMB), and the share of packets that it lacks. One thread at a time.
class SendRate {
 public:
  static constexpr std::uint64_t kLeast = 50'000;

  // What is sent when nothing speaks against it.
  void set_wanted(std::uint64_t bits_per_second);
  void take_limit(std::uint64_t bits_per_second) { limit_ = bits_per_second; }
  // `fraction_lost` of 256, since the last report.
  void take_loss(std::uint8_t fraction_lost, Micros now);

  std::uint64_t target() const;

 private:
  std::uint64_t wanted_ = 1'000'000;
  std::uint64_t limit_ = UINT64_MAX;
  double share_ = 1;  // of what is wanted, by the losses
  Micros changed_{0};
};

}  // namespace sarnet::relay
