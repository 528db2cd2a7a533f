#include <sarnet/sarnet_scenario.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "api/border.h"
#include "embedded/player.h"
#include "embedded/scenario.h"

using sarnet::guarded_result;

namespace {

// Empty when the scenario can be played.
std::string fault_of(const char* path) {
  if (path == nullptr) return "there is no path";
  std::string error;
  const std::optional<sarnet::Scenario> scenario = sarnet::load_scenario(path, error);
  if (!scenario) return error;
  for (const auto& participant : scenario->participants) {
    if (participant.publishes() && !sarnet::Player::create(participant, nullptr, error))
      return error;
  }
  return {};
}

}  // namespace

extern "C" {

size_t srn_scenario_check(const char* path, char* error, size_t capacity) {
  static constexpr size_t kFailed = 1;  // no error text: there was no memory for it
  return guarded_result<size_t>("srn_scenario_check", kFailed, [&] {
    if (error != nullptr && capacity > 0) *error = '\0';
    const std::string fault = fault_of(path);
    if (error != nullptr && capacity > 0) {
      const std::size_t length = std::min(fault.size(), capacity - 1);
      std::memcpy(error, fault.data(), length);
      error[length] = '\0';
    }
    return fault.size();
  });
}

}  // extern "C"
