#include "relay/peer/rtcp_order.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace sarnet::relay {

namespace {

constexpr std::uint8_t kSenderReport = 200;
constexpr std::uint8_t kReceiverReport = 201;
constexpr std::size_t kHeaderSize = 8;  // up to the sender's SSRC
constexpr std::size_t kSenderInfoSize = 20;
constexpr std::size_t kBlockSize = 24;
constexpr std::size_t kMaxBlocks = 31;
constexpr std::size_t kWord = 4;

std::uint32_t read_word(const std::vector<std::uint8_t>& packet, std::size_t at) {
  return static_cast<std::uint32_t>(packet[at]) << 24 |
         static_cast<std::uint32_t>(packet[at + 1]) << 16 |
         static_cast<std::uint32_t>(packet[at + 2]) << 8 | packet[at + 3];
}

std::array<std::uint8_t, kWord> word_bytes(std::uint32_t word) {
  return {static_cast<std::uint8_t>(word >> 24), static_cast<std::uint8_t>(word >> 16),
          static_cast<std::uint8_t>(word >> 8), static_cast<std::uint8_t>(word)};
}

std::size_t length_of(const std::vector<std::uint8_t>& packet) {
  return (static_cast<std::size_t>(packet[2]) << 8 | packet[3]) * kWord + kWord;
}

bool starts_with_report(const std::vector<std::uint8_t>& packet) {
  return packet[1] == kSenderReport || packet[1] == kReceiverReport;
}

}  // namespace

bool put_report_first(std::vector<std::uint8_t>& packet, std::uint32_t ssrc) {
  if (packet.size() < kHeaderSize || packet[0] >> 6 != 2 || length_of(packet) > packet.size()) {
    return false;
  }
  if (!starts_with_report(packet)) {
    const std::array<std::uint8_t, kHeaderSize> report{
        0x80, kReceiverReport, 0, 1, packet[4], packet[5], packet[6], packet[7]};
    packet.insert(packet.begin(), report.begin(), report.end());
  }
  const std::size_t blocks = packet[0] & 31U;
  const std::size_t first = kHeaderSize + (packet[1] == kSenderReport ? kSenderInfoSize : 0);
  if (first + blocks * kBlockSize > length_of(packet)) return false;
  const auto block = [&](std::size_t index) {
    return packet.begin() + static_cast<std::ptrdiff_t>(first + index * kBlockSize);
  };
  for (std::size_t i = 0; i < blocks; ++i) {
    if (read_word(packet, first + i * kBlockSize) == ssrc) {
      std::swap_ranges(block(0), block(1), block(i));
      return i > 0;
    }
  }
  if (blocks == kMaxBlocks) return false;
  packet.insert(block(0), kBlockSize, 0);
  std::ranges::copy(word_bytes(ssrc), block(0));
  const std::size_t words = length_of(packet) / kWord - 1 + kBlockSize / kWord;
  ++packet[0];
  packet[2] = static_cast<std::uint8_t>(words >> 8);
  packet[3] = static_cast<std::uint8_t>(words);
  return true;
}

}  // namespace sarnet::relay
