#include "api/device_info.h"

#include <cstdlib>

#include "base/log.h"

extern "C" {

// Filled by the program: heap copies that the library frees.
struct snt_device_info {
  const char* device_uuid;
  const char* bundle_id;
  const char* system_version;
  const char* device_model;
  const char* network_status;
  void (*stats_callback)(void);
  char device_cannot_do_simulcast;
};

// Weak and unversioned: a program may lack it.
__attribute__((weak, visibility("default"))) struct snt_device_info* srn_get_device_info(void);
}

namespace sarnet {
namespace {

const char* or_unknown(const char* text) { return text == nullptr ? "unknown" : text; }

void free_text(const char* text) {
  std::free(const_cast<char*>(text));  // NOLINT(cppcoreguidelines-no-malloc): made by malloc
}

}  // namespace

void report_device_info() {
  if (srn_get_device_info == nullptr) return;
  snt_device_info* const info = srn_get_device_info();
  if (info == nullptr) return;
  SARNET_LOG(kInfo, "Device " << or_unknown(info->device_uuid) << ", client "
                              << or_unknown(info->system_version) << ", model "
                              << or_unknown(info->device_model) << ", network "
                              << or_unknown(info->network_status));
  for (const char* text : {info->device_uuid, info->bundle_id, info->system_version,
                           info->device_model, info->network_status}) {
    free_text(text);
  }
  std::free(info);
}

}  // namespace sarnet
