#include "relay/room/unique_id.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <random>
#include <system_error>

namespace sarnet::relay {

std::string unique_id() {
  std::random_device random;
  char text[17];
  std::snprintf(text, sizeof text, "%08x%08x", random(), random());
  return text;
}

std::string random_secret() {
  std::array<unsigned char, 32> bytes;
  if (getentropy(bytes.data(), bytes.size()) != 0) {
    throw std::system_error(errno, std::generic_category(), "getentropy");
  }
  std::string text;
  for (const unsigned char byte : bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    text += {kDigits[byte >> 4U], kDigits[byte & 15U]};
  }
  return text;
}

}  // namespace sarnet::relay
