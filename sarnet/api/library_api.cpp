#include "api/border.h"
#include "api/library.h"

using sarnet::guarded_status;
using sarnet::kInvalid;
using sarnet::Library;

extern "C" {

srn_status srn_init(void*) {
  return guarded_status("srn_init", [] {
    Library::instance().init();
    return SRN_SUCCESS;
  });
}

srn_status srn_destroy(void) {
  return guarded_status("srn_destroy", []() -> srn_status {
    if (!Library::instance().destroy()) return SRN_SESSION_ILLEGAL_STATE;
    return SRN_SUCCESS;
  });
}

srn_status srn_log_enable(enum srn_log_level level) {
  sarnet::set_log_level(static_cast<int>(level));
  return SRN_SUCCESS;
}

srn_status srn_set_audio_device(const struct srn_audio_device_callbacks* callbacks) {
  return guarded_status("srn_set_audio_device", [&] {
    Library::instance().audio_device.set_callbacks(callbacks);
    return SRN_SUCCESS;
  });
}

size_t srn_audio_device_read_render_data(int16_t* buffer, size_t count) {
  if (buffer == nullptr || count == 0) return 0;
  return sarnet::guarded_result<size_t>("srn_audio_device_read_render_data", 0, [&] {
    return Library::instance().audio_device.render().read(buffer, count);
  });
}

srn_status srn_audio_device_write_capture_data(const int16_t* buffer, size_t count) {
  if (buffer == nullptr) return kInvalid;
  return guarded_status("srn_audio_device_write_capture_data", [&] {
    Library::instance().audio_device.capture().write(buffer, count);
    return SRN_SUCCESS;
  });
}

}  // extern "C"
