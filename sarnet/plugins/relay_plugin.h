#pragma once

#include <memory>
#include <string>

#include "base/engine.h"
#include "base/host_address.h"

namespace sarnet {

// The engine that joins sessions on a server is a separate shared object, libsarnet_relay.so beside
// libsarnet.so, loaded with the first session that needs it and kept for the life of the process:
// its libraries cost memory that other programs need not pay.
//
// Any thread. An engine for one participation; null when the plug-in cannot be loaded, `error` then
// says which file and why.
std::shared_ptr<Engine> make_relay_engine(const HostAddress& address, std::string& error);

}  // namespace sarnet
