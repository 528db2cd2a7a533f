#pragma once

#include <cstdint>
#include <vector>

namespace sarnet::relay {

// The server attributes a compound RTCP packet to the stream of its first report block, and takes
// the requests for key frames and lost packets in it only if that is the stream they are about.
// Puts the block about `ssrc` first: moves it there, or adds an empty one, behind an added receiver
// report if the packet starts with none. False, with the packet as it was, when it is first
// already, or when the packet is malformed or full.
bool put_report_first(std::vector<std::uint8_t>& packet, std::uint32_t ssrc);

}  // namespace sarnet::relay
