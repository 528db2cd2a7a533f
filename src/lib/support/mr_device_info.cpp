#include "support/mr_device_info.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <istream>

#include "support/logger.h"

namespace {

constexpr const char* kVersion = "1.0.3";
constexpr const char* kClientIdentity = "tavrin-media-relay";
constexpr const char* kAddressFile = "/sys/class/net/eth0/address";
constexpr std::size_t kMacAddressDigits = 12;

const log4cxx::LoggerPtr& logger = lastingLogger("MRDeviceInfo");

// Never destroyed: the library may call while static objects are destroyed.
std::string& wrapperLanguage() {
  static std::string& language = *new std::string("cpp");
  return language;
}

std::string addressOrFallback() {
  std::ifstream file(kAddressFile);
  std::string address = mr::readMacAddress(file);
  if (!address.empty()) return address;
  LOG4CXX_WARN(logger, "Could not read MAC address from eth0, using fallback UUID");
  return std::string(kMacAddressDigits, '0');
}

}  // namespace

namespace mr {

void setWrapperLanguage(const std::string& language) { wrapperLanguage() = language; }

std::string readMacAddress(std::istream& input) {
  std::string line;
  if (!std::getline(input, line) || line == "00:00:00:00:00:00") return {};
  line.erase(std::remove(line.begin(), line.end(), ':'), line.end());
  const bool usable =
      line.size() == kMacAddressDigits &&
      std::all_of(line.begin(), line.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
  return usable ? line : std::string();
}

std::string getMacAddress() {
  static const std::string& address = *new std::string(addressOrFallback());
  return address;
}

std::string getDeviceUuid() { return "00000000-0000-0000-0000-" + getMacAddress(); }

}  // namespace mr

struct snt_device_info* srn_get_device_info(void) try {
  const std::string device_uuid = mr::getDeviceUuid();
  const std::string system_version =
      std::string(kClientIdentity) + "-" + wrapperLanguage() + "-" + kVersion;
  auto* info = static_cast<snt_device_info*>(std::malloc(sizeof(snt_device_info)));
  if (info == nullptr) return nullptr;
  *info = snt_device_info{.device_uuid = strdup(device_uuid.c_str()),
                          .bundle_id = strdup(kVersion),
                          .system_version = strdup(system_version.c_str()),
                          .device_model = strdup(kClientIdentity),
                          .network_status = strdup("Unknown"),
                          .stats_callback = nullptr,
                          .device_cannot_do_simulcast = 'n'};
  return info;
} catch (const std::exception&) {
  return nullptr;
}
