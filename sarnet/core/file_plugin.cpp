#include "core/file_plugin.h"

#include <dlfcn.h>

#include <mutex>

#include "core/file_plugin_entry.h"

namespace sarnet {
namespace {

constexpr const char* kPluginName = "libsarnet_files.so";

std::string sibling_path() {
  // Any object of this library tells which file it was loaded from.
  static const char anchor = 0;
  Dl_info info{};
  if (dladdr(&anchor, &info) == 0 || info.dli_fname == nullptr) {
    return kPluginName;
  }
  const std::string own = info.dli_fname;
  const std::size_t slash = own.rfind('/');
  return slash == std::string::npos ? kPluginName : own.substr(0, slash + 1) + kPluginName;
}

std::string last_loader_error() {
  const char* text = dlerror();  // NOLINT(concurrency-mt-unsafe): per thread in glibc
  return text != nullptr ? text : "unknown reason";
}

}  // namespace

const FilePlugin* FilePlugin::load_from(const std::string& path, std::string& error) {
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    error = "cannot load the media file support '" + path + "': " + last_loader_error();
    return nullptr;
  }
  const auto entry = reinterpret_cast<FilePluginEntry>(dlsym(library, kFilePluginEntryName));
  const FilePlugin* plugin = entry != nullptr ? entry(kFilePluginVersion) : nullptr;
  if (plugin == nullptr) {
    error =
        "cannot use the media file support '" + path + "': " +
        (entry != nullptr ? "it belongs to another version of this library" : last_loader_error());
    dlclose(library);
  }
  // The library stays: its objects' code must outlive every reader and writer.
  return plugin;
}

const FilePlugin* FilePlugin::load(std::string& error) {
  static std::mutex mutex;
  static const FilePlugin* plugin = nullptr;
  const std::lock_guard lock(mutex);
  if (plugin == nullptr) {
    plugin = load_from(sibling_path(), error);
  }
  return plugin;
}

}  // namespace sarnet
