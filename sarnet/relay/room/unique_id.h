#pragma once

#include <string>

namespace sarnet::relay {

// For a participant of a room: 16 letters and digits that no other program comes upon.
std::string unique_id();

// For what nobody is to guess: 256 bits of the system's randomness in 64 digits. Throws
// std::system_error where the system has none.
std::string random_secret();

}  // namespace sarnet::relay
