#pragma once

#include <memory>

#include "base/engine.h"
#include "base/host_address.h"
#include "relay/signalling/janus_client.h"

namespace sarnet::relay {

// An engine that joins one session: a room of the server at that address. Its other settings come
// from the environment (see relay_settings.h).
std::shared_ptr<Engine> make_engine(const HostAddress& address);
// The same with other limits.
std::shared_ptr<Engine> make_engine(const HostAddress& address, const JanusSettings& client);

}  // namespace sarnet::relay
