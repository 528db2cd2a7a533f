#pragma once

#include "base/log.h"
#include "plugins/relay_plugin_entry.h"

namespace sarnet::relay {

// What the library lends the plug-in, from the moment it is loaded. SARNET_LOG writes through it.
const RelayServices& services();
// Before any engine is made.
void set_services(const RelayServices& services);

}  // namespace sarnet::relay
