#pragma once

#include <string>

#include "media/buffer_stats.h"
#include "session/mr_connection.h"
#include "session/mr_stream.h"

/// Receives the events of one session. Called on threads of the library and of the media engine,
/// which must not be delayed: an implementation copies what it needs, posts and returns. Arguments
/// are valid during the call only.
class MRSessionObserver {
 public:
  virtual void onSessionConnected(const std::string& session_id) = 0;
  virtual void onSessionDisconnected(const std::string& session_id) = 0;
  virtual void onSessionError(const std::string& session_id, const std::string& description,
                              int code) = 0;
  virtual void onStreamReceived(const std::string& session_id, const MRStream& stream) = 0;
  virtual void onStreamDropped(const std::string& session_id, const MRStreamInfo& stream_info) = 0;
  virtual void onConnectionCreated(const std::string& session_id,
                                   const MRConnection& connection) = 0;
  virtual void onConnectionDropped(const std::string& session_id,
                                   const MRConnection& connection) = 0;
  virtual void onSessionMediaBufferDrained(const MediaBufferStats& stats) = 0;

 protected:
  ~MRSessionObserver() = default;
};
