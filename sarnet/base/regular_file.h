#pragma once

#include <string>

namespace sarnet {

// Opens a file for reading, or creates and empties it for writing (`append`: keeps its contents).
// Anything but a regular file is refused: opening or reading a pipe or a device may block for ever.
// Returns a descriptor that the caller closes, or -1 and `reason`, for instance "Permission
// denied".
int open_regular(const std::string& path, std::string& reason);
int create_regular(const std::string& path, bool append, std::string& reason);

}  // namespace sarnet
