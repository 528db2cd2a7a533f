#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace sarnet::relay {

// Limits on what a server may send: well above any honest server's use, and low enough to bound
// memory.

// A message, all its fragments together. The longest is the list of those who are in a room; 500
// publishers with three streams and a display text each make 300 KB.
inline constexpr std::uint64_t kMaxMessage = std::uint64_t{1024} * 1024;
// Nesting of lists and objects; the server's own messages go 8 deep.
inline constexpr int kMaxDepth = 32;
// What may arrive in one period. Each of some thousand participants may cause an event in the same
// second. A server that never pauses would starve the loop's other work.
inline constexpr std::chrono::seconds kFloodPeriod{1};
inline constexpr std::uint64_t kFloodFrames = 10'000;
inline constexpr std::uint64_t kFloodBytes = 16 * kMaxMessage;
// Connection failures without a calm period between them.
inline constexpr int kMaxBreaks = 10;

// Participations in a room; each further stream is one.
inline constexpr std::size_t kMaxMembers = 2000;
// In bytes. Ids are numbers or UUIDs as a rule.
inline constexpr std::size_t kMaxId = 128;
inline constexpr std::size_t kMaxDisplay = 8192;

// Of one stream. A description has 1 to 2 KB for each medium.
inline constexpr std::size_t kMaxDescription = 65536;
inline constexpr std::size_t kMaxMedia = 32;
inline constexpr int kMaxOffersAtOnce = 4;
// A server has a handful of addresses, each over two protocols.
inline constexpr int kMaxCandidates = 100;
inline constexpr std::size_t kMaxCandidate = 1024;

}  // namespace sarnet::relay
