#include "plugins/relay_plugin.h"

#include <utility>

#include "base/log.h"
#include "base/thread_keeper.h"
#include "common/mutex.h"
#include "plugins/relay_plugin_entry.h"
#include "plugins/sibling_library.h"

namespace sarnet {
namespace {

void start_thread(const char* name, std::function<void()> body) {
  ThreadKeeper::instance().start(name, std::move(body));
}

const RelayPlugin* load(std::string& error) {
  const std::string path = sibling_path("libsarnet_relay.so");
  std::string reason;
  const LoadedLibrary library = load_library(path, kRelayPluginEntryName, reason);
  if (library.entry == nullptr) {
    error = "Cannot load the relay engine '" + path + "': " + reason;
    return nullptr;
  }
  const RelayServices services{&start_thread, &log_enabled, &write_log};
  const RelayPlugin* plugin =
      reinterpret_cast<RelayPluginEntry>(library.entry)(kRelayPluginVersion, services);
  if (plugin == nullptr) {
    error =
        "Cannot use the relay engine '" + path + "': it belongs to another version of this library";
    unload(library);
  }
  return plugin;
}

}  // namespace

std::shared_ptr<Engine> make_relay_engine(const HostAddress& address, std::string& error) {
  static common::Mutex mutex;
  static const RelayPlugin* plugin = nullptr;
  const common::LockGuard lock(mutex);
  if (plugin == nullptr) plugin = load(error);
  return plugin != nullptr ? plugin->make_engine(address) : nullptr;
}

}  // namespace sarnet
