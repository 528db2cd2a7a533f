#include "core/relay_plugin_entry.h"
#include "relay/relay_engine.h"
#include "relay/services.h"

extern "C" __attribute__((visibility("default"))) const sarnet::RelayPlugin* sarnet_relay_entry(
    int version, const sarnet::RelayServices& services) {
  if (version != sarnet::kRelayPluginVersion) return nullptr;
  sarnet::relay::set_services(services);
  static const sarnet::RelayPlugin plugin{&sarnet::relay::make_engine};
  return &plugin;
}
