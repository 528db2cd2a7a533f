// The library's lifetime, sessions, publishers and subscribers, as the contract has them.
#include <string>

#include "answers.h"
#include "audio_device.h"
#include "media.h"
#include "script.h"
#include "strand.h"

using scripted::Fn;
using scripted::isValid;
using scripted::Kind;
using scripted::script;
using scripted::strands;

namespace {

constexpr srn_status kInvalid = SRN_SESSION_NULL_OR_INVALID_PARAMETER;

template <class T>
std::shared_ptr<T> shared(T* handle) {
  return std::static_pointer_cast<T>(handle->self);
}

// A setting that nobody reads back.
template <class Value>
srn_status set(Fn function, scripted::Handle* handle, const char* kind_name, Kind kind,
               const char* name, Value value) {
  if (const auto status = script().call(function, kind_name, handle, name, value)) return *status;
  return isValid(handle, kind, scripted::nameOf(function)) ? SRN_SUCCESS : kInvalid;
}

template <class Value>
srn_status setPublisher(Fn function, srn_publisher_settings* settings, const char* name,
                        Value value) {
  return set(function, settings, "settings", Kind::publisher_settings, name, value);
}

}  // namespace

srn_status srn_init(void* reserved) {
  return script().call(Fn::srn_init, "reserved", reserved).value_or(SRN_SUCCESS);
}

srn_status srn_destroy(void) {
  const auto status = script().call(Fn::srn_destroy);
  if (strands().events.isCurrent() || strands().device.isCurrent()) {
    script().fault("srn_destroy: called from inside a callback");
    return SRN_SESSION_ILLEGAL_STATE;
  }
  scripted::stopStorm();
  strands().events.stop();
  scripted::finishDevice();
  strands().audio.stop();
  strands().frames.stop();
  strands().captions.stop();
  return status.value_or(SRN_SUCCESS);
}

srn_status srn_log_enable(enum srn_log_level level) {
  return script().call(Fn::srn_log_enable, "level", int32_t{level}).value_or(SRN_SUCCESS);
}

srn_status srn_set_audio_device(const struct srn_audio_device_callbacks* callbacks) {
  if (const auto status = script().call(Fn::srn_set_audio_device, "callbacks", callbacks)) {
    return *status;
  }
  scripted::installDevice(callbacks);
  return SRN_SUCCESS;
}

// ---- Sessions

srn_session_settings* srn_session_settings_new(void) {
  if (script().call(Fn::srn_session_settings_new)) return nullptr;
  return scripted::adopt(std::make_shared<srn_session_settings>());
}

srn_status srn_session_settings_set_session_migration(srn_session_settings* settings,
                                                      srn_bool enabled) {
  return set(Fn::srn_session_settings_set_session_migration, settings, "settings",
             Kind::session_settings, "enabled", enabled);
}

srn_session* srn_session_new_with_settings(const char* api_key, const char* session_id,
                                           const struct srn_session_callbacks* callbacks,
                                           srn_session_settings* settings) {
  const auto failure =
      script().call(Fn::srn_session_new_with_settings, "api_key", api_key, "session_id", session_id,
                    "callbacks", callbacks, "settings", static_cast<scripted::Handle*>(settings));
  if (settings != nullptr) {
    scripted::retire(settings, Kind::session_settings, "srn_session_new_with_settings");
  }
  if (failure || api_key == nullptr || session_id == nullptr || callbacks == nullptr)
    return nullptr;
  const auto session = std::make_shared<srn_session>(session_id, *callbacks);
  srn_session* const raw = scripted::adopt(session);
  scripted::rememberSession(session);
  return raw;
}

srn_status srn_session_connect_to_host(srn_session* session, const char* host, const char* path,
                                       uint32_t port, srn_bool secure, const char* token) {
  if (const auto status = script().call(
          Fn::srn_session_connect_to_host, "session", static_cast<scripted::Handle*>(session),
          "host", host, "path", path, "port", port, "secure", secure, "token", token)) {
    return *status;
  }
  if (!isValid(session, Kind::session, "srn_session_connect_to_host") || host == nullptr) {
    return kInvalid;
  }
  session->open.store(true);
  scripted::answerConnect(shared(session));
  return SRN_SUCCESS;
}

srn_status srn_session_disconnect(srn_session* session) {
  if (const auto status = script().call(Fn::srn_session_disconnect, "session",
                                        static_cast<scripted::Handle*>(session))) {
    return *status;
  }
  if (!isValid(session, Kind::session, "srn_session_disconnect")) return kInvalid;
  if (!session->open.exchange(false)) return SRN_SESSION_NOT_CONNECTED;
  scripted::answerDisconnect(shared(session));
  return SRN_SUCCESS;
}

srn_status srn_session_delete(srn_session* session) {
  const auto status =
      script().call(Fn::srn_session_delete, "session", static_cast<scripted::Handle*>(session));
  if (session == nullptr) return SRN_SUCCESS;
  const auto kept = session->self;
  if (!scripted::retire(session, Kind::session, "srn_session_delete")) return kInvalid;
  session->open.store(false);
  session->joined.store(false);
  session->gate.close();
  scripted::scheduleDeviceStop(session);
  return status.value_or(SRN_SUCCESS);
}

srn_connection* srn_session_get_connection(srn_session* session) {
  if (script().call(Fn::srn_session_get_connection, "session",
                    static_cast<scripted::Handle*>(session)) ||
      !isValid(session, Kind::session, "srn_session_get_connection") || !session->joined.load()) {
    return nullptr;
  }
  scripted::ConnectionFacts facts = scripted::ownConnection();
  if (facts.session_id.get() == nullptr) facts.session_id = scripted::Text(session->id.c_str());
  return scripted::adopt(std::make_shared<srn_connection>(std::move(facts)));
}

srn_status srn_session_publish(srn_session* session, srn_publisher* publisher) {
  if (const auto status =
          script().call(Fn::srn_session_publish, "session", static_cast<scripted::Handle*>(session),
                        "publisher", static_cast<scripted::Handle*>(publisher))) {
    return *status;
  }
  if (!isValid(session, Kind::session, "srn_session_publish") ||
      !isValid(publisher, Kind::publisher, "srn_session_publish")) {
    return kInvalid;
  }
  publisher->gate.bind(true);
  scripted::answerPublish(shared(publisher));
  return SRN_SUCCESS;
}

srn_status srn_session_unpublish(srn_session* session, srn_publisher* publisher) {
  if (const auto status = script().call(Fn::srn_session_unpublish, "session",
                                        static_cast<scripted::Handle*>(session), "publisher",
                                        static_cast<scripted::Handle*>(publisher))) {
    return *status;
  }
  if (!isValid(session, Kind::session, "srn_session_unpublish") ||
      !isValid(publisher, Kind::publisher, "srn_session_unpublish")) {
    return kInvalid;
  }
  publisher->gate.bind(false);
  return SRN_SUCCESS;
}

srn_status srn_session_subscribe(srn_session* session, srn_subscriber* subscriber) {
  if (const auto status = script().call(Fn::srn_session_subscribe, "session",
                                        static_cast<scripted::Handle*>(session), "subscriber",
                                        static_cast<scripted::Handle*>(subscriber))) {
    return *status;
  }
  if (!isValid(session, Kind::session, "srn_session_subscribe") ||
      !isValid(subscriber, Kind::subscriber, "srn_session_subscribe")) {
    return kInvalid;
  }
  subscriber->gate.bind(true);
  scripted::answerSubscribe(shared(subscriber));
  return SRN_SUCCESS;
}

srn_status srn_session_unsubscribe(srn_session* session, srn_subscriber* subscriber) {
  if (const auto status = script().call(Fn::srn_session_unsubscribe, "session",
                                        static_cast<scripted::Handle*>(session), "subscriber",
                                        static_cast<scripted::Handle*>(subscriber))) {
    return *status;
  }
  if (!isValid(session, Kind::session, "srn_session_unsubscribe") ||
      !isValid(subscriber, Kind::subscriber, "srn_session_unsubscribe")) {
    return kInvalid;
  }
  subscriber->gate.bind(false);
  return SRN_SUCCESS;
}

// ---- Publishers

srn_publisher_settings* srn_publisher_settings_new(void) {
  if (script().call(Fn::srn_publisher_settings_new)) return nullptr;
  return scripted::adopt(std::make_shared<srn_publisher_settings>());
}

srn_status srn_publisher_settings_delete(srn_publisher_settings* settings) {
  const auto status = script().call(Fn::srn_publisher_settings_delete, "settings",
                                    static_cast<scripted::Handle*>(settings));
  if (settings == nullptr) return SRN_SUCCESS;
  const auto kept = settings->self;
  if (!scripted::retire(settings, Kind::publisher_settings, "srn_publisher_settings_delete")) {
    return kInvalid;
  }
  return status.value_or(SRN_SUCCESS);
}

srn_status srn_publisher_settings_set_name(srn_publisher_settings* settings, const char* name) {
  return setPublisher(Fn::srn_publisher_settings_set_name, settings, "name", name);
}

srn_status srn_publisher_settings_set_audio_track(srn_publisher_settings* settings,
                                                  srn_bool enabled) {
  return setPublisher(Fn::srn_publisher_settings_set_audio_track, settings, "enabled", enabled);
}

srn_status srn_publisher_settings_set_video_track(srn_publisher_settings* settings,
                                                  srn_bool enabled) {
  const srn_status status =
      setPublisher(Fn::srn_publisher_settings_set_video_track, settings, "enabled", enabled);
  if (status == SRN_SUCCESS) settings->video_track = enabled != SRN_FALSE;
  return status;
}

srn_status srn_publisher_settings_set_stereo(srn_publisher_settings* settings, srn_bool enabled) {
  return setPublisher(Fn::srn_publisher_settings_set_stereo, settings, "enabled", enabled);
}

srn_status srn_publisher_settings_set_noise_suppression(srn_publisher_settings* settings,
                                                        srn_bool enabled) {
  return setPublisher(Fn::srn_publisher_settings_set_noise_suppression, settings, "enabled",
                      enabled);
}

srn_status srn_publisher_settings_set_echo_cancellation(srn_publisher_settings* settings,
                                                        srn_bool enabled) {
  return setPublisher(Fn::srn_publisher_settings_set_echo_cancellation, settings, "enabled",
                      enabled);
}

srn_status srn_publisher_settings_set_disable_audio_processing(srn_publisher_settings* settings,
                                                               srn_bool disabled) {
  return setPublisher(Fn::srn_publisher_settings_set_disable_audio_processing, settings, "disabled",
                      disabled);
}

srn_status srn_publisher_settings_set_opus_dtx(srn_publisher_settings* settings, srn_bool enabled) {
  return setPublisher(Fn::srn_publisher_settings_set_opus_dtx, settings, "enabled", enabled);
}

srn_status srn_publisher_settings_set_video_capturer(
    srn_publisher_settings* settings, const struct srn_video_capturer_callbacks* callbacks) {
  const srn_status status =
      setPublisher(Fn::srn_publisher_settings_set_video_capturer, settings, "callbacks", callbacks);
  if (status == SRN_SUCCESS) settings->capturer = callbacks;
  return status;
}

srn_publisher* srn_publisher_new_with_settings(const struct srn_publisher_callbacks* callbacks,
                                               const srn_publisher_settings* settings) {
  if (script().call(Fn::srn_publisher_new_with_settings, "callbacks", callbacks, "settings",
                    static_cast<const scripted::Handle*>(settings)) ||
      callbacks == nullptr ||
      !isValid(settings, Kind::publisher_settings, "srn_publisher_new_with_settings")) {
    return nullptr;
  }
  const auto publisher = std::make_shared<srn_publisher>(callbacks, *settings);
  srn_publisher* const raw = scripted::adopt(publisher);
  raw->id = "publisher-" + std::to_string(raw->number);
  scripted::rememberPublisher(publisher);
  return raw;
}

srn_status srn_publisher_set_publish_captions(srn_publisher* publisher, srn_bool enabled) {
  return set(Fn::srn_publisher_set_publish_captions, publisher, "publisher", Kind::publisher,
             "enabled", enabled);
}

const char* srn_publisher_get_publisher_id(const srn_publisher* publisher) {
  constexpr Fn function = Fn::srn_publisher_get_publisher_id;
  if (script().call(function, "publisher", static_cast<const scripted::Handle*>(publisher)) ||
      !isValid(publisher, Kind::publisher, scripted::nameOf(function))) {
    return nullptr;
  }
  const char* const text = script().text(function);
  return text != nullptr ? text : publisher->id.c_str();
}

int32_t srn_publisher_delete(srn_publisher* publisher) {
  const void* const user_data = isValid(publisher, Kind::publisher, "srn_publisher_delete")
                                    ? publisher->table->user_data
                                    : nullptr;
  const auto status =
      script().call(Fn::srn_publisher_delete, "publisher",
                    static_cast<scripted::Handle*>(publisher), "user_data", user_data);
  if (publisher == nullptr) return SRN_SUCCESS;
  const auto kept = publisher->self;
  if (!scripted::retire(publisher, Kind::publisher, "srn_publisher_delete")) return kInvalid;
  publisher->gate.close();
  scripted::closeCapturer(*publisher);
  return status.value_or(SRN_SUCCESS);
}

// ---- Subscribers

srn_subscriber* srn_subscriber_new(const srn_stream* stream,
                                   const struct srn_subscriber_callbacks* callbacks) {
  if (script().call(Fn::srn_subscriber_new, "stream", static_cast<const scripted::Handle*>(stream),
                    "callbacks", callbacks) ||
      callbacks == nullptr || !isValid(stream, Kind::stream, "srn_subscriber_new")) {
    return nullptr;
  }
  const auto subscriber = std::make_shared<srn_subscriber>(*stream, *callbacks);
  srn_subscriber* const raw = scripted::adopt(subscriber);
  raw->id = "subscriber-" + std::to_string(raw->number);
  scripted::rememberSubscriber(subscriber);
  return raw;
}

srn_status srn_subscriber_set_subscribe_to_video(srn_subscriber* subscriber, srn_bool enabled) {
  return set(Fn::srn_subscriber_set_subscribe_to_video, subscriber, "subscriber", Kind::subscriber,
             "enabled", enabled);
}

srn_status srn_subscriber_set_subscribe_to_audio(srn_subscriber* subscriber, srn_bool enabled) {
  return set(Fn::srn_subscriber_set_subscribe_to_audio, subscriber, "subscriber", Kind::subscriber,
             "enabled", enabled);
}

srn_status srn_subscriber_set_subscribe_to_captions(srn_subscriber* subscriber, srn_bool enabled) {
  return set(Fn::srn_subscriber_set_subscribe_to_captions, subscriber, "subscriber",
             Kind::subscriber, "enabled", enabled);
}

srn_status srn_subscriber_set_preferred_resolution(srn_subscriber* subscriber, uint32_t width,
                                                   uint32_t height) {
  constexpr Fn function = Fn::srn_subscriber_set_preferred_resolution;
  if (const auto status =
          script().call(function, "subscriber", static_cast<scripted::Handle*>(subscriber), "width",
                        width, "height", height)) {
    return *status;
  }
  return isValid(subscriber, Kind::subscriber, scripted::nameOf(function)) ? SRN_SUCCESS : kInvalid;
}

srn_status srn_subscriber_set_preferred_framerate(srn_subscriber* subscriber, float framerate) {
  return set(Fn::srn_subscriber_set_preferred_framerate, subscriber, "subscriber", Kind::subscriber,
             "framerate", framerate);
}

const char* srn_subscriber_get_subscriber_id(const srn_subscriber* subscriber) {
  constexpr Fn function = Fn::srn_subscriber_get_subscriber_id;
  if (script().call(function, "subscriber", static_cast<const scripted::Handle*>(subscriber)) ||
      !isValid(subscriber, Kind::subscriber, scripted::nameOf(function))) {
    return nullptr;
  }
  const char* const text = script().text(function);
  return text != nullptr ? text : subscriber->id.c_str();
}

int32_t srn_subscriber_delete(srn_subscriber* subscriber) {
  const auto status = script().call(Fn::srn_subscriber_delete, "subscriber",
                                    static_cast<scripted::Handle*>(subscriber));
  if (subscriber == nullptr) return SRN_SUCCESS;
  const auto kept = subscriber->self;
  if (!scripted::retire(subscriber, Kind::subscriber, "srn_subscriber_delete")) return kInvalid;
  subscriber->gate.close();
  return status.value_or(SRN_SUCCESS);
}
