#pragma once

#include <string>

namespace sarnet::relay {

// For a participant of a room: 16 letters and digits that no other program comes upon.
std::string unique_id();

}  // namespace sarnet::relay
