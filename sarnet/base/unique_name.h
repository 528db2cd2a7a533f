#pragma once

#include <string>

namespace sarnet {

// A name unique in this process, and among processes whose recordings or logs may be compared:
// "kind-" and 8 digits of the process, "-" and a number. Any thread.
std::string unique_name(const char* kind);

}  // namespace sarnet
