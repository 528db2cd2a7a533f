#include "api/border.h"
#include "api/library.h"

using sarnet::guarded_result;
using sarnet::guarded_status;
using sarnet::kInvalid;
using sarnet::Library;

namespace {

srn_status set_flag(const char* function, srn_publisher_settings* settings,
                    bool sarnet::PublisherSettings::*flag, srn_bool value) {
  return guarded_status(function, [&]() -> srn_status {
    const auto object = Library::instance().publisher_settings.find(settings);
    if (!object) return kInvalid;
    (*object).*flag = value != SRN_FALSE;
    return SRN_SUCCESS;
  });
}

}  // namespace

extern "C" {

srn_publisher_settings* srn_publisher_settings_new(void) {
  return guarded_result<srn_publisher_settings*>("srn_publisher_settings_new", nullptr, [] {
    return Library::instance().publisher_settings.add(
        std::make_shared<sarnet::PublisherSettings>());
  });
}

srn_status srn_publisher_settings_delete(srn_publisher_settings* settings) {
  if (settings == nullptr) return SRN_SUCCESS;
  return Library::instance().publisher_settings.remove(settings) ? SRN_SUCCESS : kInvalid;
}

srn_status srn_publisher_settings_set_name(srn_publisher_settings* settings, const char* name) {
  return guarded_status("srn_publisher_settings_set_name", [&]() -> srn_status {
    const auto object = Library::instance().publisher_settings.find(settings);
    if (!object || name == nullptr) return kInvalid;
    object->name = name;
    return SRN_SUCCESS;
  });
}

srn_status srn_publisher_settings_set_audio_track(srn_publisher_settings* settings,
                                                  srn_bool enabled) {
  return set_flag(__func__, settings, &sarnet::PublisherSettings::audio_track, enabled);
}

srn_status srn_publisher_settings_set_video_track(srn_publisher_settings* settings,
                                                  srn_bool enabled) {
  return set_flag(__func__, settings, &sarnet::PublisherSettings::video_track, enabled);
}

srn_status srn_publisher_settings_set_stereo(srn_publisher_settings* settings, srn_bool enabled) {
  return set_flag(__func__, settings, &sarnet::PublisherSettings::stereo, enabled);
}

srn_status srn_publisher_settings_set_noise_suppression(srn_publisher_settings* settings,
                                                        srn_bool enabled) {
  return set_flag(__func__, settings, &sarnet::PublisherSettings::noise_suppression, enabled);
}

srn_status srn_publisher_settings_set_echo_cancellation(srn_publisher_settings* settings,
                                                        srn_bool enabled) {
  return set_flag(__func__, settings, &sarnet::PublisherSettings::echo_cancellation, enabled);
}

srn_status srn_publisher_settings_set_disable_audio_processing(srn_publisher_settings* settings,
                                                               srn_bool disabled) {
  return set_flag(__func__, settings, &sarnet::PublisherSettings::disable_audio_processing,
                  disabled);
}

srn_status srn_publisher_settings_set_opus_dtx(srn_publisher_settings* settings, srn_bool enabled) {
  return set_flag(__func__, settings, &sarnet::PublisherSettings::opus_dtx, enabled);
}

srn_status srn_publisher_settings_set_video_capturer(
    srn_publisher_settings* settings, const struct srn_video_capturer_callbacks* callbacks) {
  return guarded_status("srn_publisher_settings_set_video_capturer", [&]() -> srn_status {
    const auto object = Library::instance().publisher_settings.find(settings);
    if (!object || callbacks == nullptr) return kInvalid;
    object->capturer = callbacks;
    return SRN_SUCCESS;
  });
}

srn_publisher* srn_publisher_new_with_settings(const struct srn_publisher_callbacks* callbacks,
                                               const srn_publisher_settings* settings) {
  return guarded_result<srn_publisher*>(
      "srn_publisher_new_with_settings", nullptr, [&]() -> srn_publisher* {
        auto& library = Library::instance();
        const auto wanted = library.publisher_settings.find(settings);
        if (!wanted || callbacks == nullptr) return nullptr;
        const auto publisher =
            std::make_shared<sarnet::Publisher>(library.context, *callbacks, *wanted);
        srn_publisher* const handle = library.publishers.add(publisher);
        publisher->set_handle(handle);
        return handle;
      });
}

srn_status srn_publisher_set_publish_captions(srn_publisher* publisher, srn_bool enabled) {
  const auto object = Library::instance().publishers.find(publisher);
  if (!object) return kInvalid;
  object->set_captions(enabled != SRN_FALSE);
  return SRN_SUCCESS;
}

const char* srn_publisher_get_publisher_id(const srn_publisher* publisher) {
  const auto object = Library::instance().publishers.find(publisher);
  return object ? object->id().c_str() : nullptr;
}

int32_t srn_publisher_delete(srn_publisher* publisher) {
  if (publisher == nullptr) return SRN_SUCCESS;
  return guarded_status("srn_publisher_delete", [&]() -> srn_status {
    const auto object = Library::instance().publishers.remove(publisher);
    if (!object) return kInvalid;
    object->close();
    return SRN_SUCCESS;
  });
}

srn_status srn_video_capturer_provide_frame(const srn_video_capturer* capturer, int32_t rotation,
                                            const srn_video_frame* frame) {
  return guarded_status("srn_video_capturer_provide_frame", [&]() -> srn_status {
    const auto track = Library::instance().capturers.find(capturer);
    const auto picture = Library::instance().frames.find(frame);
    if (!track || !picture) return kInvalid;
    return track->provide(rotation, *picture, frame) ? SRN_SUCCESS : kInvalid;
  });
}

}  // extern "C"
