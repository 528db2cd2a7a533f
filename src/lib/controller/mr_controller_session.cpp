// How the controller opens and closes a session, and how it sets the log's level.

#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <sarnet/sarnet.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <utility>

#include "controller/mr_controller.h"

namespace {

// Set when the project is configured.
constexpr const char* kApplicationEndpoint = TAVRIN_APPLICATION_ENDPOINT;
constexpr const char* kApiKeyEndpoint = TAVRIN_API_KEY_ENDPOINT;

char lowered(char character) {
  return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
}

}  // namespace

bool stringCaseInsensitiveCompare(const std::string& a, const std::string& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char left, char right) { return lowered(left) == lowered(right); });
}

bool MRController::connect(MRSessionInfo session_info, const MRSessionSettings& session_settings) {
  return event_queue_.postAndWait<bool>(
      [this, info = std::move(session_info), settings = session_settings]() mutable {
        return connectInternal(info, settings);
      });
}

bool MRController::connectInternal(MRSessionInfo& session_info,
                                   const MRSessionSettings& session_settings) {
  event_queue_.requireWorkerThread();
  if (!isSntLibraryInitialised_) {
    LOG4CXX_ERROR(logger_, "MRController::connect: MR library not initialised.");
    return false;
  }
  if (is_running_) return false;
  if (!session_info.isValid()) {
    LOG4CXX_ERROR(logger_, "MRController::connect: Invalid session info provided");
    return false;
  }
  if (!chooseEndpoint(session_info)) return false;
  LOG4CXX_DEBUG(logger_, "MRController::connect: with session_info: "
                             << session_info << ", session_settings: " << session_settings);
  session_settings_ = session_settings;
  // From here on queued events of an earlier session are stale, and so are the streams it left.
  ++session_generation_;
  subscriber_manager_.discardStreams();
  // So that a capturer that starts before the worker handles the new session's on_connected does
  // not count as the old session's.
  audio_device_wrapper_->setOnCapturerStartedCallback({});
  session_ = MRSession::connect(session_info, session_settings, this);
  if (session_ == nullptr) {
    is_running_ = false;
    return false;
  }
  audio_session_id_ = &*audio_session_ids_.insert(session_info.session_id).first;
  is_running_ = true;
  return true;
}

bool MRController::chooseEndpoint(MRSessionInfo& session_info) {
  if (const char* const hostname = std::getenv("API_HOSTNAME")) {
    session_info.api_hostname = hostname;
    std::string lower = session_info.api_hostname;
    std::transform(lower.begin(), lower.end(), lower.begin(), lowered);
    if (lower.starts_with("http://") || lower.starts_with("https://")) {
      LOG4CXX_ERROR(logger_, "API_HOSTNAME should not include a protocol (http:// or https://): "
                                 << session_info.api_hostname);
      return false;
    }
    LOG4CXX_DEBUG(logger_, "MRController::connect: Got API_HOSTNAME from environment variable: "
                               << session_info.api_hostname);
  } else if (session_info.api_key.find('-') != std::string::npos) {
    session_info.api_hostname = kApplicationEndpoint;
    LOG4CXX_DEBUG(logger_,
                  "MRController::connect: Detected Application ID, routing to Tavrin endpoint: "
                      << session_info.api_hostname);
  } else {
    session_info.api_hostname = kApiKeyEndpoint;
    LOG4CXX_DEBUG(logger_, "MRController::connect: Detected API Key, routing to Sarnet endpoint: "
                               << session_info.api_hostname);
  }
  return true;
}

bool MRController::disconnect() {
  return event_queue_.postAndWait<bool>([this] { return disconnectInternal(); });
}

bool MRController::disconnectInternal() {
  event_queue_.requireWorkerThread();
  LOG4CXX_DEBUG(logger_, "MRController::disconnect");
  if (!isSntLibraryInitialised_) {
    LOG4CXX_ERROR(logger_, "MRController::disconnect: MR library not initialised.");
    return false;
  }
  if (!is_running_) return true;
  // Media first, so that nothing is fed to an object being torn down; the session last, since the
  // others use it.
  is_running_ = false;
  audio_device_wrapper_->stop();
  subscriber_manager_.reset();
  publisher_manager_.unpublish();
  session_.reset();
  return true;
}

void MRController::endSession(uint64_t generation) {
  if (generation == session_generation_) disconnectInternal();
}

void MRController::setLogLevel(const std::string& level) {
  struct Row {
    const char* word;
    srn_log_level library_level;
    log4cxx::LevelPtr level;
  };
  // Only "trace" turns on the library's own debug output.
  const Row rows[] = {
      {"off", SRN_LOG_LEVEL_DISABLED, log4cxx::Level::getOff()},
      {"trace", SRN_LOG_LEVEL_TRACE, log4cxx::Level::getTrace()},
      {"debug", SRN_LOG_LEVEL_INFO, log4cxx::Level::getDebug()},
      {"info", SRN_LOG_LEVEL_INFO, log4cxx::Level::getInfo()},
      {"warn", SRN_LOG_LEVEL_WARN, log4cxx::Level::getWarn()},
      {"error", SRN_LOG_LEVEL_ERROR, log4cxx::Level::getError()},
  };
  for (const Row& row : rows) {
    if (stringCaseInsensitiveCompare(level, row.word)) {
      srn_log_enable(row.library_level);
      log4cxx::Logger::getRootLogger()->setLevel(row.level);
      return;
    }
  }
}
