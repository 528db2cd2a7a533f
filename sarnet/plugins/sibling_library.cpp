#include "plugins/sibling_library.h"

#include <dlfcn.h>

namespace sarnet {
namespace {

std::string last_loader_error() {
  const char* text = dlerror();  // NOLINT(concurrency-mt-unsafe): per thread in glibc
  return text != nullptr ? text : "unknown reason";
}

}  // namespace

std::string sibling_path(const char* name) {
  // The address of any object of this library gives the file it was loaded from.
  static const char anchor = 0;
  Dl_info info{};
  if (dladdr(&anchor, &info) == 0 || info.dli_fname == nullptr) return name;
  const std::string own = info.dli_fname;
  const std::size_t slash = own.rfind('/');
  return slash == std::string::npos ? name : own.substr(0, slash + 1) + name;
}

LoadedLibrary load_library(const std::string& path, const char* entry, std::string& error) {
  LoadedLibrary library{dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL), nullptr};
  if (library.handle != nullptr) library.entry = dlsym(library.handle, entry);
  if (library.entry != nullptr) return library;
  error = last_loader_error();
  unload(library);
  return {};
}

void unload(const LoadedLibrary& library) {
  if (library.handle != nullptr) dlclose(library.handle);
}

}  // namespace sarnet
