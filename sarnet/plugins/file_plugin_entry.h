#pragma once

namespace sarnet {

class FilePlugin;

// What libsarnet.so and libsarnet_files.so agree on. The version changes with every change of the
// classes in file_plugin.h; a plug-in of another version gives null.
inline constexpr int kFilePluginVersion = 2;
inline constexpr const char* kFilePluginEntryName = "sarnet_files_entry";
extern "C" {
using FilePluginEntry = const FilePlugin* (*)(int version);
}

}  // namespace sarnet
