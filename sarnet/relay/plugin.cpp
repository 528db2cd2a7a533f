#include "plugins/relay_plugin_entry.h"
#include "relay/peer/services.h"
#include "relay/room/relay_engine.h"

extern "C" __attribute__((visibility("default"))) const sarnet::RelayPlugin* sarnet_relay_entry(
    int version, const sarnet::RelayServices& services) {
  if (version != sarnet::kRelayPluginVersion) return nullptr;
  sarnet::relay::set_services(services);
  static const sarnet::RelayPlugin plugin{&sarnet::relay::make_engine};
  return &plugin;
}
