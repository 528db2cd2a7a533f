#include "session/mr_session.h"

#include <atomic>
#include <future>
#include <ostream>
#include <utility>

#include "session/callback_gate.h"
#include "support/callback_guard.h"
#include "support/logger.h"

namespace {

const log4cxx::LoggerPtr& logger = lastingLogger("MRSession");

// Path and port of the service are fixed.
constexpr const char* kPath = "";
constexpr uint32_t kPort = 443;

}  // namespace

std::ostream& operator<<(std::ostream& out, const MRSessionInfo& info) {
  return out << "MRSessionInfo: {sessionId: " << info.session_id << ", token: " << info.token
             << ", apiKey: " << info.api_key << ", apiHostname: " << info.api_hostname << "}";
}

std::ostream& operator<<(std::ostream& out, const MRSessionSettings& settings) {
  return out << "MRSessionSettings: {enableMigration:" << settings.enable_migration
             << ", videoInput:" << settings.video_publisher
             << ", audioDeviceSettings:" << settings.audio << "}";
}

/// All that the callbacks use. The session's destructor closes `gate` first: from then on the
/// library's last event only settles the promise.
struct MRSession::CallbackState {
  CallbackState(MRSessionObserver* observer, const std::string& id)
      : controller(observer), session_id(id) {}

  /// The library may end a session more than once.
  void settle() {
    if (!settled.exchange(true)) disconnect_promise.set_value(true);
  }

  MRSessionObserver* const controller;
  const std::string session_id;
  CallbackGate gate;
  std::atomic<bool> force_disconnected{false};
  std::atomic<bool> settled{false};
  std::promise<bool> disconnect_promise;
  common::Mutex own_connection_info_mutex;  // a leaf
  MRConnectionInfo own_connection_info GUARDED_BY(own_connection_info_mutex);
};

namespace {

/// Runs `body` with the state of `user_data` if its session is alive, and keeps it so meanwhile.
template <class State, class Body>
void withLiveSession(void* user_data, const char* name, Body&& body) {
  guardCallback(logger, name, [&] {
    const auto state = CallbackStates<State>::instance().find(user_data);
    if (state == nullptr || state->controller == nullptr) return;
    if (const CallbackGate::Pass pass(state->gate); pass) body(*state);
  });
}

}  // namespace

MRSession::MRSession(MRSessionObserver* controller, const std::string& session_id)
    : callback_state_(std::make_shared<CallbackState>(controller, session_id)),
      callbacks_{
          .on_connected = &MRSession::onSessionConnected,
          .on_disconnected = &MRSession::onSessionDisconnected,
          .on_connection_created = &MRSession::onSessionConnectionCreated,
          .on_connection_dropped = &MRSession::onSessionConnectionDropped,
          .on_stream_received = &MRSession::onStreamReceived,
          .on_stream_dropped = &MRSession::onStreamDropped,
          .on_stream_has_audio_changed = nullptr,
          .on_stream_has_video_changed = nullptr,
          .on_stream_has_captions_changed = nullptr,
          .on_stream_video_dimensions_changed = nullptr,
          .on_stream_video_type_changed = nullptr,
          .on_signal_received = nullptr,
          .on_reconnection_started = nullptr,
          .on_reconnected = nullptr,
          .on_archive_started = nullptr,
          .on_archive_stopped = nullptr,
          .on_error = &MRSession::onSessionError,
          .on_mute_forced = nullptr,
          .user_data = CallbackStates<CallbackState>::instance().open(callback_state_),
          .reserved = nullptr,
      } {}

std::shared_ptr<MRSession> MRSession::connect(const MRSessionInfo& info,
                                              const MRSessionSettings& settings,
                                              MRSessionObserver* controller) {
  LOG4CXX_DEBUG(logger, "MRSession::connect: session_info:" << info);
  LOG4CXX_DEBUG(logger, "MRSession::connect: session_settings:" << settings);
  if (!info.isValid()) {
    LOG4CXX_ERROR(logger,
                  "MRSession::connect: Invalid/incomplete session information. info:" << info);
    return nullptr;
  }
  if (!settings.video_publisher.isValid()) {
    LOG4CXX_ERROR(logger,
                  "MRSession::connect: Invalid video publisher settings. settings.video_publisher:"
                      << settings.video_publisher);
    return nullptr;
  }
  std::shared_ptr<MRSession> session(new MRSession(controller, info.session_id));
  // There is nothing to wait for without a session to leave.
  session->setDisconnectTimeout(std::chrono::seconds(0));

  srn_session_settings* srn_settings = srn_session_settings_new();
  srn_session_settings_set_session_migration(srn_settings,
                                             settings.enable_migration ? SRN_TRUE : SRN_FALSE);
  // The library takes the settings over here, even if it fails.
  session->session_.reset(srn_session_new_with_settings(
      info.api_key.c_str(), info.session_id.c_str(), &session->callbacks_, srn_settings));
  if (session->session_ == nullptr) {
    LOG4CXX_ERROR(logger, "MRSession::connect: Could not create session.");
    return nullptr;
  }
  LOG4CXX_DEBUG(logger, "MRSession::connect: session_:" << session->session_.get());

  const srn_status status =
      srn_session_connect_to_host(session->session_.get(), info.api_hostname.c_str(), kPath, kPort,
                                  SRN_TRUE, info.token.c_str());
  if (status != SRN_SUCCESS) {
    LOG4CXX_ERROR(logger,
                  "MRSession::connect: Failed to connect to the session. status:" << status);
    return nullptr;
  }
  session->session_id_ = info.session_id;
  session->session_settings_ = settings;
  session->setDisconnectTimeout(kDefaultDisconnectTimeout);
  return session;
}

MRSession::~MRSession() {
  LOG4CXX_DEBUG(logger, "MRSession::~MRSession DESTRUCTOR");
  callback_state_->gate.close();
  if (!callback_state_->force_disconnected.load() && !waitForDisconnect()) {
    LOG4CXX_ERROR(logger, "MRSession::~MRSession: Timed out disconnecting from session.");
  }
  // The library may call until the handle is deleted, so that comes first.
  session_.reset();
  CallbackStates<CallbackState>::instance().close(callbacks_.user_data);
}

MRConnectionInfo MRSession::getSessionConnectionInfo() const {
  const common::LockGuard lock(callback_state_->own_connection_info_mutex);
  return callback_state_->own_connection_info;
}

void MRSession::disconnect() {
  LOG4CXX_DEBUG(logger, "MRSession::disconnect: session_id:" << session_id_);
  const srn_status status = srn_session_disconnect(session_.get());
  if (status != SRN_SUCCESS && status != SRN_SESSION_NOT_CONNECTED) {
    LOG4CXX_ERROR(
        logger, "MRSession::disconnect: Failed to disconnect from the session. status:" << status);
  }
}

bool MRSession::waitForDisconnect() {
  disconnect();
  std::future<bool> disconnected = callback_state_->disconnect_promise.get_future();
  return disconnected.wait_for(disconnect_timeout_) == std::future_status::ready &&
         disconnected.get();
}

void MRSession::onSessionConnected(srn_session* session, void* user_data) {
  LOG4CXX_DEBUG(logger, "MRSession::onSessionConnected");
  withLiveSession<CallbackState>(
      user_data, "MRSession::onSessionConnected", [session](CallbackState& state) {
        if (SrnConnectionPtr connection{srn_session_get_connection(session)}) {
          MRConnectionInfo info = MRConnection::createConnectionInfo(connection.get());
          connection.reset();
          {
            const common::LockGuard lock(state.own_connection_info_mutex);
            state.own_connection_info = std::move(info);
          }
          LOG4CXX_DEBUG(logger, "MRSession::onSessionConnected: Cached session connection info");
        } else {
          LOG4CXX_WARN(logger,
                       "MRSession::onSessionConnected: Could not retrieve session connection");
        }
        state.controller->onSessionConnected(state.session_id);
      });
}

void MRSession::onStreamReceived(srn_session*, void* user_data, const srn_stream* stream) {
  LOG4CXX_DEBUG(logger, "MRSession::onStreamReceived");
  withLiveSession<CallbackState>(
      user_data, "MRSession::onStreamReceived", [stream](CallbackState& state) {
        state.controller->onStreamReceived(state.session_id, MRStream(stream));
      });
}

void MRSession::onStreamDropped(srn_session*, void* user_data, const srn_stream* stream) {
  LOG4CXX_DEBUG(logger, "MRSession::onStreamDropped");
  withLiveSession<CallbackState>(
      user_data, "MRSession::onStreamDropped", [stream](CallbackState& state) {
        state.controller->onStreamDropped(state.session_id, MRStream(stream).getStreamInfo());
      });
}

void MRSession::onSessionConnectionCreated(srn_session*, void* user_data,
                                           const srn_connection* connection) {
  LOG4CXX_DEBUG(logger, "MRSession: onSessionConnectionCreated");
  withLiveSession<CallbackState>(
      user_data, "MRSession::onSessionConnectionCreated", [&](CallbackState& state) {
        if (connection != nullptr) {
          state.controller->onConnectionCreated(state.session_id, MRConnection(connection));
        }
      });
}

void MRSession::onSessionConnectionDropped(srn_session*, void* user_data,
                                           const srn_connection* connection) {
  LOG4CXX_DEBUG(logger, "MRSession: onSessionConnectionDropped");
  withLiveSession<CallbackState>(
      user_data, "MRSession::onSessionConnectionDropped", [&](CallbackState& state) {
        if (connection != nullptr) {
          state.controller->onConnectionDropped(state.session_id, MRConnection(connection));
        }
      });
}

void MRSession::onSessionDisconnected(srn_session*, void* user_data) {
  LOG4CXX_DEBUG(logger, "MRSession::onSessionDisconnected");
  guardCallback(logger, "MRSession::onSessionDisconnected", [user_data] {
    const auto state = CallbackStates<CallbackState>::instance().find(user_data);
    if (state == nullptr) return;
    const CallbackGate::Pass pass(state->gate);
    if (!pass) {
      LOG4CXX_INFO(logger,
                   "MRSession::onSessionDisconnected: Session has been destroyed successfully. "
                   "set disconnect promise to true");
      state->settle();
      return;
    }
    if (state->controller == nullptr) return;
    LOG4CXX_DEBUG(logger,
                  "MRSession::onSessionDisconnected: Session wrapper user data still exists");
    state->force_disconnected = true;
    state->controller->onSessionDisconnected(state->session_id);
  });
}

void MRSession::onSessionError(srn_session*, void* user_data, const char* description,
                               srn_session_error_code code) {
  description = textOrEmpty(description);
  const auto number = static_cast<int>(code);  // may be outside the enumeration
  LOG4CXX_ERROR(logger,
                "MRSession::onSessionError: code:" << number << ", description:" << description);
  guardCallback(logger, "MRSession::onSessionError", [=] {
    const auto state = CallbackStates<CallbackState>::instance().find(user_data);
    if (state == nullptr) return;
    const CallbackGate::Pass pass(state->gate);
    // Every error ends the session.
    state->force_disconnected = true;
    if (!pass) {
      LOG4CXX_INFO(logger,
                   "MRSession::onSessionError: Session has been disconnected with error. "
                   "set disconnect promise to true");
      state->settle();
      return;
    }
    if (state->controller == nullptr) return;
    state->controller->onSessionError(state->session_id, description, number);
  });
}

void MRSession::onSrnLogMessage(const char*, int, const char*, int, const char* message) {
  LOG4CXX_DEBUG(logger, "MRSession::onSrnLogMessage: msg:'" << textOrEmpty(message) << "'");
}
