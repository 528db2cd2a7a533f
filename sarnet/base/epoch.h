#pragma once

#include <chrono>
#include <cstdint>

namespace sarnet {

// Milliseconds since the Unix epoch, by the system's clock, which may be set.
inline std::int64_t epoch_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace sarnet
