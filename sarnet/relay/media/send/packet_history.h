#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "relay/media/packets/rtp_packet.h"

namespace sarnet::relay {

// The last packets of one stream, to be sent again. One thread at a time; allocates in the
// constructor alone.
class PacketHistory {
 public:
  // Two seconds of a megabit.
  static constexpr std::size_t kPackets = 256;
  // What was sent again is left alone for so long: requests overtake what they ask for.
  static constexpr Micros kQuiet{20'000};

  PacketHistory() : slots_(kPackets) {}

  void add(std::uint16_t sequence, Bytes packet);
  // The packet, valid until the next call; empty when it is gone, or was just sent again.
  Bytes find(std::uint16_t sequence, Micros now);

 private:
  struct Slot {
    std::uint16_t sequence = 0;
    std::uint16_t size = 0;
    Micros sent_again{-1'000'000};
    std::array<std::uint8_t, kMaxPacket> bytes;
  };
  std::vector<Slot> slots_;
};

}  // namespace sarnet::relay
