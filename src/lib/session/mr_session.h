#pragma once

#include <sarnet/sarnet.h>

#include <chrono>
#include <iosfwd>
#include <memory>
#include <string>

#include "media/mr_audio_device.h"
#include "media/mr_video_capturer.h"
#include "session/mr_connection.h"
#include "session/mr_session_observer.h"
#include "session/srn_handles.h"

/// Which session to join, and as whom. `api_key` holds an API key or an Application ID.
struct MRSessionInfo {
  std::string session_id;
  std::string token;
  std::string api_key;
  std::string api_hostname;

  /// The host may be set later.
  bool isValid() const { return !session_id.empty() && !token.empty() && !api_key.empty(); }
};

/// Prints the token in full.
std::ostream& operator<<(std::ostream& out, const MRSessionInfo& info);

struct MRSessionSettings {
  static constexpr bool kDefaultEnableMigration = false;

  bool enable_migration = kDefaultEnableMigration;
  MRVideoSettings video_publisher{640, 480, 30, MRVideoFrameFormat::YUV420P};
  MRAudioDeviceSettings audio{{48000, 2}, {48000, 2}};
};

std::ostream& operator<<(std::ostream& out, const MRSessionSettings& settings);

/// One session of the library: made by `connect`, left and deleted by the destructor. Turns the
/// library's session events into calls of the observer.
//
/// Threads: `connect`, the accessors and the destructor belong to the worker;
/// `getSessionConnectionInfo` may be called on any thread. Events come on a library thread, touch
/// only the shared state, and none reaches the observer once the destructor has begun.
class MRSession {
 public:
  static constexpr std::chrono::seconds kDefaultDisconnectTimeout{5};

  /// Starts joining. Reports the outcome to `controller`, which must outlive the session. Empty
  /// when the information is incomplete or the library refuses; the log says why, and nothing is
  /// left.
  static std::shared_ptr<MRSession> connect(const MRSessionInfo& info,
                                            const MRSessionSettings& settings,
                                            MRSessionObserver* controller);

  /// Leaves the session unless the library has ended it, and waits for the confirmation, at most
  /// the disconnect time-out. Deletes the handle in any case.
  ~MRSession();
  MRSession(const MRSession&) = delete;
  MRSession& operator=(const MRSession&) = delete;

  srn_session* getSrnSession() const { return session_.get(); }
  std::string getSessionId() const { return session_id_; }
  const MRSessionSettings& getSessionSettings() const { return session_settings_; }
  /// This participant's own connection; empty until the session is joined.
  MRConnectionInfo getSessionConnectionInfo() const;
  void setDisconnectTimeout(std::chrono::seconds timeout) { disconnect_timeout_ = timeout; }

 private:
  struct CallbackState;

  MRSession(MRSessionObserver* controller, const std::string& session_id);

  void disconnect();
  bool waitForDisconnect();

  static void onSessionConnected(srn_session* session, void* user_data);
  static void onSessionDisconnected(srn_session* session, void* user_data);
  static void onStreamReceived(srn_session* session, void* user_data, const srn_stream* stream);
  static void onStreamDropped(srn_session* session, void* user_data, const srn_stream* stream);
  static void onSessionConnectionCreated(srn_session* session, void* user_data,
                                         const srn_connection* connection);
  static void onSessionConnectionDropped(srn_session* session, void* user_data,
                                         const srn_connection* connection);
  static void onSessionError(srn_session* session, void* user_data, const char* description,
                             srn_session_error_code code);
  static void onSrnLogMessage(const char* file, int line, const char* function, int level,
                              const char* message);

  std::shared_ptr<CallbackState> callback_state_;  ///< all that the callbacks use
  srn_session_callbacks callbacks_;  ///< the library holds its address until the handle is deleted
  SRNSessionPtr session_;
  std::string session_id_;
  MRSessionSettings session_settings_;
  std::chrono::seconds disconnect_timeout_ = kDefaultDisconnectTimeout;
};
