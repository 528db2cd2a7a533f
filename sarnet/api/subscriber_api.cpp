#include <cmath>

#include "api/border.h"
#include "api/library.h"

using sarnet::guarded_result;
using sarnet::guarded_status;
using sarnet::kInvalid;
using sarnet::Library;

namespace {

srn_status set_flag(srn_subscriber* subscriber, std::atomic<bool> sarnet::Subscriber::*flag,
                    srn_bool value) {
  const auto object = Library::instance().subscribers.find(subscriber);
  if (!object) return kInvalid;
  (*object).*flag = value != SRN_FALSE;
  object->preferences_changed();
  return SRN_SUCCESS;
}

}  // namespace

extern "C" {

srn_subscriber* srn_subscriber_new(const srn_stream* stream,
                                   const struct srn_subscriber_callbacks* callbacks) {
  return guarded_result<srn_subscriber*>("srn_subscriber_new", nullptr, [&]() -> srn_subscriber* {
    auto& library = Library::instance();
    const auto source = library.streams.find(stream);
    if (!source || callbacks == nullptr) return nullptr;
    const auto subscriber = std::make_shared<sarnet::Subscriber>(Library::instance().context,
                                                                 source->info(), *callbacks);
    srn_subscriber* const handle = library.subscribers.add(subscriber);
    subscriber->set_handle(handle);
    return handle;
  });
}

srn_status srn_subscriber_set_subscribe_to_video(srn_subscriber* subscriber, srn_bool enabled) {
  return set_flag(subscriber, &sarnet::Subscriber::wants_video, enabled);
}

srn_status srn_subscriber_set_subscribe_to_audio(srn_subscriber* subscriber, srn_bool enabled) {
  return set_flag(subscriber, &sarnet::Subscriber::wants_audio, enabled);
}

srn_status srn_subscriber_set_subscribe_to_captions(srn_subscriber* subscriber, srn_bool enabled) {
  return set_flag(subscriber, &sarnet::Subscriber::wants_captions, enabled);
}

srn_status srn_subscriber_set_preferred_resolution(srn_subscriber* subscriber, uint32_t width,
                                                   uint32_t height) {
  const auto object = Library::instance().subscribers.find(subscriber);
  if (!object || width == 0 || height == 0) return kInvalid;
  object->max_resolution = std::uint64_t{width} << 32 | height;
  object->preferences_changed();
  return SRN_SUCCESS;
}

srn_status srn_subscriber_set_preferred_framerate(srn_subscriber* subscriber, float framerate) {
  const auto object = Library::instance().subscribers.find(subscriber);
  // Below one picture per hundred seconds the period exceeds the clock's range.
  if (!object || !std::isfinite(framerate) || framerate < 0.01F) return kInvalid;
  object->max_framerate = framerate;
  object->preferences_changed();
  return SRN_SUCCESS;
}

const char* srn_subscriber_get_subscriber_id(const srn_subscriber* subscriber) {
  const auto object = Library::instance().subscribers.find(subscriber);
  return object ? object->id().c_str() : nullptr;
}

int32_t srn_subscriber_delete(srn_subscriber* subscriber) {
  if (subscriber == nullptr) return SRN_SUCCESS;
  return guarded_status("srn_subscriber_delete", [&]() -> srn_status {
    const auto object = Library::instance().subscribers.remove(subscriber);
    if (!object) return kInvalid;
    object->close();
    return SRN_SUCCESS;
  });
}

}  // extern "C"
