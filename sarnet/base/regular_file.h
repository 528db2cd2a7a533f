#pragma once

#include <string>

namespace sarnet {

// Opens a file for reading, or creates and empties it for writing (`append`: keeps what is in it).
// What is no regular file is refused: opening or reading a pipe or a device may take for ever.
// Gives a descriptor that the caller closes, or -1 and `reason`, for instance "Permission denied".
int open_regular(const std::string& path, std::string& reason);
int create_regular(const std::string& path, bool append, std::string& reason);

}  // namespace sarnet
