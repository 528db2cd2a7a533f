#pragma once

namespace loopback {

// Loses a share of the media packets that the process receives, evenly at random from a fixed seed,
// for as long as it lives; for the peers made in that time.
class PacketLoss {
 public:
  explicit PacketLoss(double share);
  ~PacketLoss();
  PacketLoss(const PacketLoss&) = delete;
  PacketLoss& operator=(const PacketLoss&) = delete;

  static int lost();
  static int passed();
};

}  // namespace loopback
