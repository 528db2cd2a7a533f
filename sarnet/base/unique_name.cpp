#include "base/unique_name.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <random>

namespace sarnet {

std::string unique_name(const char* kind) {
  static const unsigned process = std::random_device{}();
  static std::atomic<std::uint64_t> next{1};
  char text[64];
  std::snprintf(text, sizeof text, "%s-%08x-%llu", kind, process,
                static_cast<unsigned long long>(next.fetch_add(1)));
  return text;
}

}  // namespace sarnet
