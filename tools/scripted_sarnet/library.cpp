// The functions of the contract except for media, as a list of what each does with its arguments.
#include <string>

#include "audio.h"
#include "events.h"
#include "media.h"
#include "script.h"
#include "scripted_sarnet.h"
#include "strand.h"

using scripted::script;
using scripted::shared;
using scripted::strands;

namespace {

constexpr srn_status kInvalid = SRN_SESSION_NULL_OR_INVALID_PARAMETER;

// Deletes a handle; `before` runs once it counts as deleted. Deleting null succeeds.
template <class T, class Before>
srn_status remove(const scripted::Function& function, std::optional<srn_status> failure, T* handle,
                  Before before) {
  if (handle == nullptr) return SRN_SUCCESS;
  const auto kept = scripted::shared(handle);
  if (!function.retire(handle)) return kInvalid;
  before();
  return failure.value_or(SRN_SUCCESS);
}

constexpr auto kNothing = [] {};

}  // namespace

// A setting that is never read.
#define SETTER(name, Type, handle, Value, value)            \
  srn_status srn_##name(Type* handle, Value value) {        \
    SCRIPTED_CALL(handle, value);                           \
    if (failure) return *failure;                           \
    return function.valid(handle) ? SRN_SUCCESS : kInvalid; \
  }

// A value read from a handle; null or 0 on failure.
#define GETTER(name, Type, Handle, handle, value)      \
  Type srn_##name(const Handle* handle) {              \
    SCRIPTED_CALL(handle);                             \
    if (failure || !function.valid(handle)) return {}; \
    return value;                                      \
  }

// Functions that bind two handles.
#define BINDER(name, Object, object, effect)                                  \
  srn_status srn_session_##name(srn_session* session, Object* object) {       \
    SCRIPTED_CALL(session, object);                                           \
    if (failure) return *failure;                                             \
    if (!function.valid(session) || !function.valid(object)) return kInvalid; \
    effect;                                                                   \
    return SRN_SUCCESS;                                                       \
  }

// ---- The library's life

srn_status srn_init(void* reserved) {
  SCRIPTED_CALL(reserved);
  return failure.value_or(SRN_SUCCESS);
}

srn_status srn_destroy(void) {
  SCRIPTED_CALL();
  if (strands().events.isCurrent() || strands().device.isCurrent()) {
    script().fault("srn_destroy: called from inside a callback");
    return SRN_SESSION_ILLEGAL_STATE;
  }
  scripted::stopStorm();
  strands().events.stop();
  scripted::finishDevice();
  for (auto* strand : {&strands().audio, &strands().frames, &strands().captions}) strand->stop();
  return failure.value_or(SRN_SUCCESS);
}

srn_status srn_log_enable(enum srn_log_level level) {
  SCRIPTED_CALL(level);
  return failure.value_or(SRN_SUCCESS);
}

srn_status srn_set_audio_device(const struct srn_audio_device_callbacks* callbacks) {
  SCRIPTED_CALL(callbacks);
  if (!failure) scripted::installDevice(callbacks);
  return failure.value_or(SRN_SUCCESS);
}

// ---- Sessions

srn_session_settings* srn_session_settings_new(void) {
  SCRIPTED_CALL();
  return failure ? nullptr : scripted::adopt(std::make_shared<srn_session_settings>());
}

SETTER(session_settings_set_session_migration, srn_session_settings, settings, srn_bool, enabled)

srn_session* srn_session_new_with_settings(const char* api_key, const char* session_id,
                                           const struct srn_session_callbacks* callbacks,
                                           srn_session_settings* settings) {
  SCRIPTED_CALL(api_key, session_id, callbacks, settings);
  if (settings != nullptr) function.retire(settings);
  if (failure || api_key == nullptr || session_id == nullptr || callbacks == nullptr) {
    return nullptr;
  }
  return scripted::adopt(std::make_shared<srn_session>(session_id, *callbacks));
}

srn_status srn_session_connect_to_host(srn_session* session, const char* host, const char* path,
                                       uint32_t port, srn_bool secure, const char* token) {
  SCRIPTED_CALL(session, host, path, port, secure, token);
  if (failure) return *failure;
  if (!function.valid(session) || host == nullptr) return kInvalid;
  session->open.store(true);
  scripted::answerConnect(shared(session));
  return SRN_SUCCESS;
}

srn_status srn_session_disconnect(srn_session* session) {
  SCRIPTED_CALL(session);
  if (failure) return *failure;
  if (!function.valid(session)) return kInvalid;
  if (!session->open.exchange(false)) return SRN_SESSION_NOT_CONNECTED;
  scripted::answerDisconnect(shared(session));
  return SRN_SUCCESS;
}

srn_status srn_session_delete(srn_session* session) {
  SCRIPTED_CALL(session);
  return remove(function, failure, session, [session] {
    session->open.store(false);
    session->joined.store(false);
    session->gate.close();
    scripted::scheduleDeviceStop(session);
  });
}

srn_connection* srn_session_get_connection(srn_session* session) {
  SCRIPTED_CALL(session);
  if (failure || !function.valid(session) || !session->joined.load()) return nullptr;
  return scripted::adopt(scripted::ownConnection(session->id.c_str()));
}

BINDER(publish, srn_publisher, publisher, publisher->gate.bind(true);
       scripted::answerPublish(shared(publisher)))
BINDER(unpublish, srn_publisher, publisher, publisher->gate.bind(false))
BINDER(subscribe, srn_subscriber, subscriber, subscriber->gate.bind(true);
       scripted::answerSubscribe(shared(subscriber)))
BINDER(unsubscribe, srn_subscriber, subscriber, subscriber->gate.bind(false))

// ---- Publishers

srn_publisher_settings* srn_publisher_settings_new(void) {
  SCRIPTED_CALL();
  return failure ? nullptr : scripted::adopt(std::make_shared<srn_publisher_settings>());
}

srn_status srn_publisher_settings_delete(srn_publisher_settings* settings) {
  SCRIPTED_CALL(settings);
  return remove(function, failure, settings, kNothing);
}

#define PUBLISHER_SETTER(name, Value, value) \
  SETTER(publisher_settings_set_##name, srn_publisher_settings, settings, Value, value)
PUBLISHER_SETTER(name, const char*, name)
PUBLISHER_SETTER(audio_track, srn_bool, enabled)
PUBLISHER_SETTER(stereo, srn_bool, enabled)
PUBLISHER_SETTER(noise_suppression, srn_bool, enabled)
PUBLISHER_SETTER(echo_cancellation, srn_bool, enabled)
PUBLISHER_SETTER(disable_audio_processing, srn_bool, disabled)
PUBLISHER_SETTER(opus_dtx, srn_bool, enabled)

srn_status srn_publisher_settings_set_video_track(srn_publisher_settings* settings,
                                                  srn_bool enabled) {
  SCRIPTED_CALL(settings, enabled);
  if (failure) return *failure;
  if (!function.valid(settings)) return kInvalid;
  settings->video_track = enabled != SRN_FALSE;
  return SRN_SUCCESS;
}

srn_status srn_publisher_settings_set_video_capturer(
    srn_publisher_settings* settings, const struct srn_video_capturer_callbacks* callbacks) {
  SCRIPTED_CALL(settings, callbacks);
  if (failure) return *failure;
  if (!function.valid(settings)) return kInvalid;
  settings->capturer = callbacks;
  return SRN_SUCCESS;
}

srn_publisher* srn_publisher_new_with_settings(const struct srn_publisher_callbacks* callbacks,
                                               const srn_publisher_settings* settings) {
  SCRIPTED_CALL(callbacks, settings);
  if (failure || callbacks == nullptr || !function.valid(settings)) return nullptr;
  auto* const publisher = scripted::adopt(std::make_shared<srn_publisher>(*callbacks, *settings));
  publisher->id = "publisher-" + std::to_string(publisher->number);
  return publisher;
}

SETTER(publisher_set_publish_captions, srn_publisher, publisher, srn_bool, enabled)
GETTER(publisher_get_publisher_id, const char*, srn_publisher, publisher, publisher->id.c_str())

int32_t srn_publisher_delete(srn_publisher* publisher) {
  const bool alive = publisher != nullptr && publisher->alive.load();
  const void* const user_data = alive ? publisher->table.user_data : nullptr;
  SCRIPTED_CALL(publisher, user_data);
  return remove(function, failure, publisher, [publisher] {
    publisher->gate.close();
    scripted::closeCapturer(*publisher);
  });
}

// ---- Subscribers

srn_subscriber* srn_subscriber_new(const srn_stream* stream,
                                   const struct srn_subscriber_callbacks* callbacks) {
  SCRIPTED_CALL(stream, callbacks);
  if (failure || callbacks == nullptr || !function.valid(stream)) return nullptr;
  auto* const subscriber = scripted::adopt(std::make_shared<srn_subscriber>(*stream, *callbacks));
  subscriber->id = "subscriber-" + std::to_string(subscriber->number);
  return subscriber;
}

#define SUBSCRIBER_SETTER(name, Value, value) \
  SETTER(subscriber_set_##name, srn_subscriber, subscriber, Value, value)
SUBSCRIBER_SETTER(subscribe_to_video, srn_bool, enabled)
SUBSCRIBER_SETTER(subscribe_to_audio, srn_bool, enabled)
SUBSCRIBER_SETTER(subscribe_to_captions, srn_bool, enabled)
SUBSCRIBER_SETTER(preferred_framerate, float, framerate)

srn_status srn_subscriber_set_preferred_resolution(srn_subscriber* subscriber, uint32_t width,
                                                   uint32_t height) {
  SCRIPTED_CALL(subscriber, width, height);
  if (failure) return *failure;
  return function.valid(subscriber) ? SRN_SUCCESS : kInvalid;
}

GETTER(subscriber_get_subscriber_id, const char*, srn_subscriber, subscriber,
       subscriber->id.c_str())

int32_t srn_subscriber_delete(srn_subscriber* subscriber) {
  SCRIPTED_CALL(subscriber);
  return remove(function, failure, subscriber, [subscriber] { subscriber->gate.close(); });
}

// ---- Streams and connections

srn_stream* srn_stream_copy(const srn_stream* stream) {
  SCRIPTED_CALL(stream);
  if (failure || !function.valid(stream)) return nullptr;
  const auto* const own = stream->connection.get();
  return scripted::adopt(std::make_shared<srn_stream>(
      stream->id, own == nullptr ? nullptr
                                 : scripted::makeConnection(
                                       scripted::given(own->id), scripted::given(own->data),
                                       scripted::given(own->session_id), own->creation_time)));
}

srn_status srn_stream_delete(srn_stream* stream) {
  SCRIPTED_CALL(stream);
  return remove(function, failure, stream, kNothing);
}

GETTER(stream_get_id, const char*, srn_stream, stream, scripted::given(stream->id))
GETTER(stream_get_connection, const srn_connection*, srn_stream, stream, stream->connection.get())

#define CONNECTION_GETTER(name, Type, value) \
  GETTER(connection_get_##name, Type, srn_connection, connection, value)
CONNECTION_GETTER(id, const char*, scripted::given(connection->id))
CONNECTION_GETTER(data, const char*, scripted::given(connection->data))
CONNECTION_GETTER(session_id, const char*, scripted::given(connection->session_id))
CONNECTION_GETTER(creation_time, int64_t, connection->creation_time)

srn_status srn_connection_delete(srn_connection* connection) {
  SCRIPTED_CALL(connection);
  return remove(function, failure, connection, kNothing);
}

srn_stream* scripted_stream_new(const char* id, const char* connection_id,
                                const char* connection_data, const char* session_id,
                                int64_t creation_time) {
  return scripted::adopt(std::make_shared<srn_stream>(
      scripted::text(id),
      connection_id == nullptr
          ? nullptr
          : scripted::makeConnection(connection_id, connection_data, session_id, creation_time)));
}
