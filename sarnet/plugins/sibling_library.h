#pragma once

#include <string>

namespace sarnet {

// A shared object that is loaded on demand and stays: its objects' code must outlive all of them.
struct LoadedLibrary {
  void* handle = nullptr;  // for unload()
  void* entry = nullptr;   // the symbol asked for
};

// The path of a shared object of that name beside this library.
std::string sibling_path(const char* name);
// Opens `path` and looks for its symbol `entry`. Both null on failure: `error` then says why.
LoadedLibrary load_library(const std::string& path, const char* entry, std::string& error);
// For a library that turned out unusable.
void unload(const LoadedLibrary& library);

}  // namespace sarnet
