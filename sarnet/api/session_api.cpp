#include "api/border.h"
#include "api/device_info.h"
#include "api/engine_selection.h"
#include "api/library.h"

using sarnet::empty;
using sarnet::guarded_result;
using sarnet::guarded_status;
using sarnet::kInvalid;
using sarnet::Library;

extern "C" {

srn_session_settings* srn_session_settings_new(void) {
  return guarded_result<srn_session_settings*>("srn_session_settings_new", nullptr, [] {
    return Library::instance().session_settings.add(std::make_shared<sarnet::SessionSettings>());
  });
}

srn_status srn_session_settings_set_session_migration(srn_session_settings* settings,
                                                      srn_bool enabled) {
  return guarded_status("srn_session_settings_set_session_migration", [&]() -> srn_status {
    const auto object = Library::instance().session_settings.find(settings);
    if (!object) return kInvalid;
    object->migration = enabled != SRN_FALSE;
    return SRN_SUCCESS;
  });
}

srn_session* srn_session_new_with_settings(const char* api_key, const char* session_id,
                                           const struct srn_session_callbacks* callbacks,
                                           srn_session_settings* settings) {
  return guarded_result<srn_session*>(
      "srn_session_new_with_settings", nullptr, [&]() -> srn_session* {
        auto& library = Library::instance();
        // Taken over first: the settings are consumed even if no session can be made.
        const auto taken = library.session_settings.remove(settings);
        if (settings != nullptr && !taken) return nullptr;
        if (empty(api_key) || empty(session_id) || callbacks == nullptr) return nullptr;
        if (!library.initialised()) {
          SARNET_LOG(kError, "srn_session_new_with_settings: the library is not initialised");
          return nullptr;
        }
        const auto session =
            std::make_shared<sarnet::Session>(library.context, api_key, session_id, *callbacks,
                                              taken ? *taken : sarnet::SessionSettings{});
        srn_session* const handle = library.sessions.add(session);
        session->set_handle(handle);
        return handle;
      });
}

srn_status srn_session_connect_to_host(srn_session* session, const char* host, const char* path,
                                       uint32_t port, srn_bool secure, const char* token) {
  return guarded_status("srn_session_connect_to_host", [&]() -> srn_status {
    const auto object = Library::instance().sessions.find(session);
    if (!object || host == nullptr || token == nullptr) return kInvalid;
    const auto engine = sarnet::select_engine(host);
    if (!engine) return kInvalid;
    sarnet::report_device_info();
    return object->connect(engine, {object->api_key(), object->session_id(), host,
                                    path == nullptr ? "" : path, port, secure != SRN_FALSE, token});
  });
}

srn_status srn_session_disconnect(srn_session* session) {
  return guarded_status("srn_session_disconnect", [&]() -> srn_status {
    const auto object = Library::instance().sessions.find(session);
    return object ? object->disconnect() : kInvalid;
  });
}

srn_status srn_session_delete(srn_session* session) {
  if (session == nullptr) return SRN_SUCCESS;
  return guarded_status("srn_session_delete", [&]() -> srn_status {
    const auto object = Library::instance().sessions.remove(session);
    if (!object) return kInvalid;
    object->close();
    return SRN_SUCCESS;
  });
}

srn_connection* srn_session_get_connection(srn_session* session) {
  return guarded_result<srn_connection*>(
      "srn_session_get_connection", nullptr, [&]() -> srn_connection* {
        const auto object = Library::instance().sessions.find(session);
        auto connection = object ? object->own_connection() : nullptr;
        return connection ? Library::instance().connections.add(std::move(connection)) : nullptr;
      });
}

srn_status srn_session_publish(srn_session* session, srn_publisher* publisher) {
  return guarded_status("srn_session_publish", [&]() -> srn_status {
    const auto object = Library::instance().sessions.find(session);
    const auto published = Library::instance().publishers.find(publisher);
    return object && published ? object->publish(published) : kInvalid;
  });
}

srn_status srn_session_unpublish(srn_session* session, srn_publisher* publisher) {
  return guarded_status("srn_session_unpublish", [&]() -> srn_status {
    const auto object = Library::instance().sessions.find(session);
    const auto published = Library::instance().publishers.find(publisher);
    return object && published ? object->unpublish(published) : kInvalid;
  });
}

srn_status srn_session_subscribe(srn_session* session, srn_subscriber* subscriber) {
  return guarded_status("srn_session_subscribe", [&]() -> srn_status {
    const auto object = Library::instance().sessions.find(session);
    const auto subscribed = Library::instance().subscribers.find(subscriber);
    return object && subscribed ? object->subscribe(subscribed) : kInvalid;
  });
}

srn_status srn_session_unsubscribe(srn_session* session, srn_subscriber* subscriber) {
  return guarded_status("srn_session_unsubscribe", [&]() -> srn_status {
    const auto object = Library::instance().sessions.find(session);
    const auto subscribed = Library::instance().subscribers.find(subscriber);
    return object && subscribed ? object->unsubscribe(subscribed) : kInvalid;
  });
}

}  // extern "C"
