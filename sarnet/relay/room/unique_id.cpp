#include "relay/room/unique_id.h"

#include <cstdio>
#include <random>

namespace sarnet::relay {

std::string unique_id() {
  std::random_device random;
  char text[17];
  std::snprintf(text, sizeof text, "%08x%08x", random(), random());
  return text;
}

std::string random_secret() { return unique_id() + unique_id(); }

}  // namespace sarnet::relay
