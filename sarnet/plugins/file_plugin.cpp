#include "plugins/file_plugin.h"

#include "common/mutex.h"
#include "plugins/file_plugin_entry.h"
#include "plugins/sibling_library.h"

namespace sarnet {

const FilePlugin* FilePlugin::load_from(const std::string& path, std::string& error) {
  std::string reason;
  const LoadedLibrary library = load_library(path, kFilePluginEntryName, reason);
  if (library.entry == nullptr) {
    error = "cannot load the media file support '" + path + "': " + reason;
    return nullptr;
  }
  const FilePlugin* plugin = reinterpret_cast<FilePluginEntry>(library.entry)(kFilePluginVersion);
  if (plugin == nullptr) {
    error = "cannot use the media file support '" + path +
            "': it belongs to another version of this library";
    unload(library);
  }
  return plugin;
}

const FilePlugin* FilePlugin::load(std::string& error) {
  static common::Mutex mutex;
  static const FilePlugin* plugin = nullptr;
  const common::LockGuard lock(mutex);
  if (plugin == nullptr) plugin = load_from(sibling_path("libsarnet_files.so"), error);
  return plugin;
}

}  // namespace sarnet
