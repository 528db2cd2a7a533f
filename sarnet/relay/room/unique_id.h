#pragma once

#include <string>

namespace sarnet::relay {

// For a participant of a room: 16 letters and digits that no other program comes upon.
std::string unique_id();

// 128 bits of the system's randomness in 32 letters and digits.
std::string random_secret();

}  // namespace sarnet::relay
