#pragma once

#include <string>

namespace sarnet {

// A name that no other object of this process has, and none of another process that a recording or
// a log could be laid beside: "kind-" and 8 digits of the process, "-" and a number. Any thread.
std::string unique_name(const char* kind);

}  // namespace sarnet
