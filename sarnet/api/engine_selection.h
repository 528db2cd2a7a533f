#pragma once

#include <memory>
#include <string>

#include "base/engine.h"

namespace sarnet {

// The engine that a host string names, or null when it names none. For an engine that this library
// was built without, or a host that it must not talk to, returns one whose join fails with the
// reason.
std::shared_ptr<Engine> select_engine(const std::string& host);

}  // namespace sarnet
