// A scenario's text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "embedded/scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string error;
  const auto scenario = sarnet::parse_scenario(text, "/nonexistent", "seed.json", error);
  // Read, or refused in one line that names the file.
  if (!scenario && error.find("seed.json") == std::string::npos) __builtin_trap();
  if (error.find('\n') != std::string::npos) __builtin_trap();
  return 0;
}
