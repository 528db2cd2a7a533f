// How events pass from the threads of the library and of the media engine to the worker, and from
// there to the owner's callbacks.

#include <utility>

#include "controller/mr_controller.h"

namespace {

/// Calls the callback if there is one.
template <class Callback, class... Arguments>
void raise(const Callback& callback, const Arguments&... arguments) {
  if (callback) callback(arguments...);
}

}  // namespace

void MRController::onSessionConnected(const std::string& session_id) {
  LOG4CXX_DEBUG(logger_, "MRController::onSessionConnected: session_id:" << session_id);
  event_queue_.post([this, generation = session_generation_.load(), session_id = session_id] {
    if (generation == session_generation_) {
      audio_device_wrapper_->updateSettings(session_settings_.audio);
      audio_device_wrapper_->setOnCapturerStartedCallback(
          [this, session_id] { onSessionReadyToPublish(session_id); });
    }
    raise(session_callbacks_.on_connected, session_id);
  });
}

void MRController::onSessionDisconnected(const std::string& session_id) {
  LOG4CXX_DEBUG(logger_, "MRController::onSessionDisconnected: session_id:" << session_id);
  event_queue_.post([this, generation = session_generation_.load(), session_id = session_id] {
    endSession(generation);
    raise(session_callbacks_.on_disconnected, session_id);
  });
}

void MRController::onSessionError(const std::string& session_id, const std::string& description,
                                  int code) {
  LOG4CXX_ERROR(
      logger_, "MRController::onSessionError: session_id:" << session_id << " error_code:" << code
                                                           << " error_description:" << description);
  event_queue_.post([this, generation = session_generation_.load(), session_id = session_id,
                     description = description, code] {
    endSession(generation);
    raise(session_callbacks_.on_error, session_id, description, code);
  });
}

void MRController::onStreamReceived(const std::string& session_id, const MRStream& stream) {
  LOG4CXX_DEBUG(logger_, "MRController::onStreamReceived: session_id:"
                             << session_id << " stream_info: " << stream.getStreamInfo());
  event_queue_.post([this, generation = session_generation_.load(), session_id = session_id,
                     stream = MRStream(stream)] {
    if (generation == session_generation_) {
      subscriber_manager_.addStream(stream.getStreamInfo().stream_id, stream);
    }
    raise(session_callbacks_.on_stream_received, session_id, stream);
  });
}

void MRController::onStreamDropped(const std::string& session_id, const MRStreamInfo& stream_info) {
  LOG4CXX_DEBUG(logger_, "MRController::onStreamDropped: session_id:"
                             << session_id << " stream_info:" << stream_info);
  event_queue_.post([this, generation = session_generation_.load(), session_id = session_id,
                     stream_info = stream_info] {
    if (generation == session_generation_) subscriber_manager_.removeStream(stream_info.stream_id);
    raise(session_callbacks_.on_stream_dropped, session_id, stream_info);
  });
}

void MRController::onConnectionCreated(const std::string& session_id,
                                       const MRConnection& connection) {
  MRConnectionInfo info = connection.getConnectionInfo();
  LOG4CXX_DEBUG(logger_, "MRController::onConnectionCreated: session_id:"
                             << session_id << " connection_info:" << info);
  event_queue_.post([this, session_id = session_id, info = std::move(info)] {
    raise(session_callbacks_.on_connection_created, session_id, info);
  });
}

void MRController::onConnectionDropped(const std::string& session_id,
                                       const MRConnection& connection) {
  MRConnectionInfo info = connection.getConnectionInfo();
  LOG4CXX_DEBUG(logger_, "MRController::onConnectionDropped: session_id:"
                             << session_id << " connection_info:" << info);
  event_queue_.post([this, session_id = session_id, info = std::move(info)] {
    raise(session_callbacks_.on_connection_dropped, session_id, info);
  });
}

void MRController::onSessionReadyToPublish(const std::string& session_id) {
  LOG4CXX_DEBUG(logger_, "MRController::onSessionReadyToPublish: session_id:" << session_id);
  event_queue_.post([this, session_id = session_id] {
    raise(session_callbacks_.on_ready_to_publish, session_id);
  });
}

void MRController::onSessionMediaBufferDrained(const MediaBufferStats& stats) {
  LOG4CXX_DEBUG(logger_, "MRController::onSessionMediaBufferDrained");
  event_queue_.post(
      [this, stats = stats] { raise(session_callbacks_.on_media_buffer_drained, stats); });
}

void MRController::onSessionAudioData(const MRAudioData& audio_data) {
  if (!is_running_ || !session_callbacks_.on_audio_data) return;
  const std::string* const session_id = audio_session_id_.load();
  if (session_id == nullptr || session_id->empty()) return;
  session_callbacks_.on_audio_data(*session_id, audio_data);
}
