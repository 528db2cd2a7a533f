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

// The service is reached in the one way.
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

/// All that the callbacks use. `door` is closed first thing in the session's destructor: from then
/// on the library's last word only settles the promise.
struct MRSession::Gate {
  Gate(MRSessionObserver* observer, const std::string& id) : controller(observer), session_id(id) {}

  /// The library may end a session more than once.
  void settle() {
    if (!settled.exchange(true)) {
      disconnect_promise.set_value(true);
    }
  }

  MRSessionObserver* const controller;
  const std::string session_id;
  CallbackDoor door;
  std::atomic<bool> force_disconnected{false};
  std::atomic<bool> settled{false};
  std::promise<bool> disconnect_promise;
  common::Mutex own_connection_info_mutex;  // a leaf
  MRConnectionInfo own_connection_info GUARDED_BY(own_connection_info_mutex);
};

namespace {

/// Runs `body` with the gate of `user_data` if its session is still alive and stays so meanwhile.
template <class Gate, class Body>
void withLiveSession(void* user_data, const char* name, Body&& body) {
  guardCallback(logger, name, [&] {
    const auto gate = CallbackGates<Gate>::instance().find(user_data);
    if (gate == nullptr || gate->controller == nullptr) {
      return;
    }
    if (const CallbackDoor::Visit visit(gate->door); visit) {
      body(*gate);
    }
  });
}

}  // namespace

MRSession::MRSession(MRSessionObserver* controller, const std::string& session_id)
    : gate_(std::make_shared<Gate>(controller, session_id)),
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
          .user_data = CallbackGates<Gate>::instance().open(gate_),
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
  // Nothing to wait for until there is something to leave.
  session->setDisconnectTimeout(std::chrono::seconds(0));

  srn_session_settings* srn_settings = srn_session_settings_new();
  srn_session_settings_set_session_migration(srn_settings,
                                             settings.enable_migration ? SRN_TRUE : SRN_FALSE);
  // The settings pass to the library here, whatever comes back.
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
  gate_->door.close();
  if (!gate_->force_disconnected.load() && !waitForDisconnect()) {
    LOG4CXX_ERROR(logger, "MRSession::~MRSession: Timed out disconnecting from session.");
  }
  // The library may call until the handle is deleted, so that comes before anything else goes.
  session_.reset();
  CallbackGates<Gate>::instance().close(callbacks_.user_data);
}

MRConnectionInfo MRSession::getSessionConnectionInfo() const {
  const common::LockGuard lock(gate_->own_connection_info_mutex);
  return gate_->own_connection_info;
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
  std::future<bool> disconnected = gate_->disconnect_promise.get_future();
  return disconnected.wait_for(disconnect_timeout_) == std::future_status::ready &&
         disconnected.get();
}

void MRSession::onSessionConnected(srn_session* session, void* user_data) {
  LOG4CXX_DEBUG(logger, "MRSession::onSessionConnected");
  withLiveSession<Gate>(user_data, "MRSession::onSessionConnected", [session](Gate& gate) {
    if (SrnConnectionPtr connection{srn_session_get_connection(session)}) {
      MRConnectionInfo info = MRConnection::createConnectionInfo(connection.get());
      connection.reset();
      {
        const common::LockGuard lock(gate.own_connection_info_mutex);
        gate.own_connection_info = std::move(info);
      }
      LOG4CXX_DEBUG(logger, "MRSession::onSessionConnected: Cached session connection info");
    } else {
      LOG4CXX_WARN(logger, "MRSession::onSessionConnected: Could not retrieve session connection");
    }
    gate.controller->onSessionConnected(gate.session_id);
  });
}

void MRSession::onStreamReceived(srn_session*, void* user_data, const srn_stream* stream) {
  LOG4CXX_DEBUG(logger, "MRSession::onStreamReceived");
  withLiveSession<Gate>(user_data, "MRSession::onStreamReceived", [stream](Gate& gate) {
    gate.controller->onStreamReceived(gate.session_id, MRStream(stream));
  });
}

void MRSession::onStreamDropped(srn_session*, void* user_data, const srn_stream* stream) {
  LOG4CXX_DEBUG(logger, "MRSession::onStreamDropped");
  withLiveSession<Gate>(user_data, "MRSession::onStreamDropped", [stream](Gate& gate) {
    gate.controller->onStreamDropped(gate.session_id, MRStream(stream).getStreamInfo());
  });
}

void MRSession::onSessionConnectionCreated(srn_session*, void* user_data,
                                           const srn_connection* connection) {
  LOG4CXX_DEBUG(logger, "MRSession: onSessionConnectionCreated");
  withLiveSession<Gate>(user_data, "MRSession::onSessionConnectionCreated", [&](Gate& gate) {
    if (connection != nullptr) {
      gate.controller->onConnectionCreated(gate.session_id, MRConnection(connection));
    }
  });
}

void MRSession::onSessionConnectionDropped(srn_session*, void* user_data,
                                           const srn_connection* connection) {
  LOG4CXX_DEBUG(logger, "MRSession: onSessionConnectionDropped");
  withLiveSession<Gate>(user_data, "MRSession::onSessionConnectionDropped", [&](Gate& gate) {
    if (connection != nullptr) {
      gate.controller->onConnectionDropped(gate.session_id, MRConnection(connection));
    }
  });
}

void MRSession::onSessionDisconnected(srn_session*, void* user_data) {
  LOG4CXX_DEBUG(logger, "MRSession::onSessionDisconnected");
  guardCallback(logger, "MRSession::onSessionDisconnected", [user_data] {
    const auto gate = CallbackGates<Gate>::instance().find(user_data);
    if (gate == nullptr) {
      return;
    }
    const CallbackDoor::Visit visit(gate->door);
    if (!visit) {
      LOG4CXX_INFO(logger,
                   "MRSession::onSessionDisconnected: Session has been destroyed successfully. "
                   "set disconnect promise to true");
      gate->settle();
      return;
    }
    if (gate->controller == nullptr) {
      return;
    }
    LOG4CXX_DEBUG(logger,
                  "MRSession::onSessionDisconnected: Session wrapper user data still exists");
    gate->force_disconnected = true;
    gate->controller->onSessionDisconnected(gate->session_id);
  });
}

void MRSession::onSessionError(srn_session*, void* user_data, const char* description,
                               srn_session_error_code code) {
  description = textOrEmpty(description);
  const auto number = static_cast<int>(code);  // any, also one that the enumeration does not know
  LOG4CXX_ERROR(logger,
                "MRSession::onSessionError: code:" << number << ", description:" << description);
  guardCallback(logger, "MRSession::onSessionError", [=] {
    const auto gate = CallbackGates<Gate>::instance().find(user_data);
    if (gate == nullptr) {
      return;
    }
    const CallbackDoor::Visit visit(gate->door);
    // Every error is the end of the session.
    gate->force_disconnected = true;
    if (!visit) {
      LOG4CXX_INFO(logger,
                   "MRSession::onSessionError: Session has been disconnected with error. "
                   "set disconnect promise to true");
      gate->settle();
      return;
    }
    if (gate->controller == nullptr) {
      return;
    }
    gate->controller->onSessionError(gate->session_id, description, number);
  });
}

void MRSession::onSrnLogMessage(const char*, int, const char*, int, const char* message) {
  LOG4CXX_DEBUG(logger, "MRSession::onSrnLogMessage: msg:'" << textOrEmpty(message) << "'");
}
