#pragma once

#include <memory>
#include <string>

#include "base/engine.h"

namespace sarnet {

// An engine that carries a session inside this process, with no network. Sessions of the same API
// key and id meet in one room; the scenario (a file, or empty for the default one) brings in
// further participants.
std::shared_ptr<Engine> make_embedded_engine(const std::string& scenario_path);

}  // namespace sarnet
