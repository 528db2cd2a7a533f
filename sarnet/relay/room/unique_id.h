#pragma once

#include <string>

namespace sarnet::relay {

// An id for a participant of a room: 16 random letters and digits.
std::string unique_id();

// A secret: 256 bits of the system's randomness in 64 digits. Throws std::system_error when the
// system has none.
std::string random_secret();

}  // namespace sarnet::relay
