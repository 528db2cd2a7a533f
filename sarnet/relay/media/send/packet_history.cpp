#include "relay/media/send/packet_history.h"

#include <algorithm>

namespace sarnet::relay {

void PacketHistory::add(std::uint16_t sequence, Bytes packet) {
  if (packet.size() > kMaxPacket) return;
  Slot& slot = slots_[sequence % kPackets];
  slot.sequence = sequence;
  slot.size = static_cast<std::uint16_t>(packet.size());
  slot.sent_again = Micros{-1'000'000};
  std::copy(packet.begin(), packet.end(), slot.bytes.begin());
}

Bytes PacketHistory::find(std::uint16_t sequence, Micros now) {
  Slot& slot = slots_[sequence % kPackets];
  if (slot.size == 0 || slot.sequence != sequence || now - slot.sent_again < kQuiet) return {};
  slot.sent_again = now;
  return Bytes(slot.bytes).first(slot.size);
}

}  // namespace sarnet::relay
