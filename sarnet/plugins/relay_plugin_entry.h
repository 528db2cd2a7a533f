#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/engine.h"
#include "base/host_address.h"
#include "base/log.h"

namespace sarnet {

// What the library provides to the relay engine's plug-in. Any thread, at any time.
struct RelayServices {
  // Runs `body` on a new thread, which the library joins once it has ended. Throws
  // std::system_error.
  void (*start_thread)(const char* name, std::function<void()> body) = nullptr;
  bool (*log_enabled)(LogLevel level) = nullptr;
  void (*write_log)(LogLevel level, const std::string& text) = nullptr;
};

// What the plug-in provides: a factory of engines, each for one participation.
struct RelayPlugin {
  std::shared_ptr<Engine> (*make_engine)(const HostAddress& address) = nullptr;
};

// Incremented with every change of the types that cross the interface.
inline constexpr int kRelayPluginVersion = 1;
inline constexpr const char* kRelayPluginEntryName = "sarnet_relay_entry";
extern "C" {
// Null for another version than the plug-in's own.
using RelayPluginEntry = const RelayPlugin* (*)(int version, const RelayServices& services);
}

}  // namespace sarnet
