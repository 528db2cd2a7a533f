#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "relay/media/packets/rtp_packet.h"

namespace sarnet::relay {

// Spreads the packets of large frames over time: a few go out at once, the others at a rate. One
// thread at a time; allocates in the constructor alone.
class Pacer {
 public:
  // What goes out at once: most frames.
  static constexpr std::size_t kBurst = 12'000;
  static constexpr std::size_t kPackets = 1024;

  Pacer() : queue_(kPackets) {}

  void set_rate(std::uint64_t bits_per_second) { rate_ = bits_per_second; }
  // False when too much waits: the packet is lost.
  bool add(Bytes packet, Micros now);
  // The next packet that may go out now; empty when there is none. Valid until the next add().
  Bytes take(Micros now);
  // When there is one; nothing while none waits.
  std::optional<Micros> deadline() const;

 private:
  struct Entry {
    std::uint16_t size = 0;
    std::array<std::uint8_t, kMaxPacket> bytes;
  };
  void refill(Micros now);

  std::vector<Entry> queue_;
  std::size_t first_ = 0;
  std::size_t size_ = 0;
  std::uint64_t rate_ = 2'500'000;
  double credit_ = kBurst;  // in bytes; below zero after a packet that it did not cover
  Micros refilled_{0};
};

}  // namespace sarnet::relay
