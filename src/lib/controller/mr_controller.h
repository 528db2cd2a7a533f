#pragma once

#include <log4cxx/logger.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "media/buffer_stats.h"
#include "media/mr_audio_data.h"
#include "media/mr_audio_device.h"
#include "media/mr_video_frame.h"
#include "runtime/event_queue.h"
#include "session/mr_publisher_manager.h"
#include "session/mr_session.h"
#include "session/mr_session_observer.h"
#include "session/mr_subscriber_manager.h"

using on_session_connected = std::function<void(const std::string& session_id)>;
using on_session_disconnected = std::function<void(const std::string& session_id)>;
using on_session_stream_received =
    std::function<void(const std::string& session_id, const MRStream& stream)>;
using on_session_stream_dropped =
    std::function<void(const std::string& session_id, const MRStreamInfo& stream_info)>;
using on_session_connection_created =
    std::function<void(const std::string& session_id, const MRConnectionInfo& connection_info)>;
using on_session_connection_dropped =
    std::function<void(const std::string& session_id, const MRConnectionInfo& connection_info)>;
using on_session_error =
    std::function<void(const std::string& session_id, const std::string& description, int code)>;
using on_session_audio_data =
    std::function<void(const std::string& session_id, const MRAudioData& audio_data)>;
using on_session_ready_to_publish = std::function<void(const std::string& session_id)>;
using on_session_media_buffer_drained = std::function<void(const MediaBufferStats& stats)>;

/// The owner's callbacks; any member may be empty. All run on the worker, one at a time and in
/// order, and may call the controller; only `on_audio_data` runs on the renderer's thread, with
/// samples that are valid during the call.
struct MRSessionCallbacks {
  on_session_connected on_connected;
  /// The session ended without being asked to.
  on_session_disconnected on_disconnected;
  on_session_stream_received on_stream_received;
  on_session_stream_dropped on_stream_dropped;
  on_session_connection_created on_connection_created;
  on_session_connection_dropped on_connection_dropped;
  on_session_error on_error;
  on_session_audio_data on_audio_data;
  on_session_ready_to_publish on_ready_to_publish;
  on_session_media_buffer_drained on_media_buffer_drained;
};

/// The one facade of the native core: owns the worker, the audio device, the session, the publisher
/// and the subscribers. One at a time in a process, since the library is initialised and destroyed
/// with it.
//
/// Any thread may call any operation. Those that change or read the session run on the worker while
/// the caller waits; on the worker itself they run inline, and then a task's exception reaches the
/// caller. A caller must hold no lock that a callback may need. After the worker has stopped they
/// give the failing result. `isRunning`, `isPublishing`, `addAudio`, `addVideo` and `setLogLevel`
/// never wait for the worker.
//
/// Never deleted through its base. The destructor leaves the session, runs what is still queued,
/// joins the worker and destroys the library; it must not run on the worker. An owner that may not
/// wait for the worker at process exit leaks the controller instead.
class MRController final : public MRSessionObserver {
 public:
  /// Installs the audio device and initialises the library. A library that cannot be initialised
  /// leaves a working object on which `connect` refuses.
  explicit MRController(MRSessionCallbacks callbacks);
  ~MRController();
  MRController(const MRController&) = delete;
  MRController& operator=(const MRController&) = delete;

  /// Once per process until `deinitSntLibrary`; true when the library is ready.
  static bool initSntLibrary();
  static void deinitSntLibrary();

  /// Starts joining; the outcome comes as `on_connected` or `on_error`. The host of `session_info`
  /// is always replaced: by API_HOSTNAME, else by the endpoint for the kind of id. False while
  /// there is a session, which is left untouched.
  bool connect(MRSessionInfo session_info, const MRSessionSettings& session_settings);
  /// True also when there was nothing to leave. Waits for the library, at most 5 seconds.
  bool disconnect();
  /// True from a successful `connect` to the start of the tear-down.
  bool isRunning() const { return is_running_.load(); }

  /// The publisher's id; empty on failure.
  std::string publish(const MRPublisherSettings& settings, const MRPublisherCallbacks& callbacks);
  bool unpublish();
  bool isPublishing() const { return publisher_manager_.isPublishing(); }

  /// The subscriber's id; empty on failure.
  std::string subscribe(const std::string& stream_id, const MRSubscriberCallbacks& callbacks,
                        const MRSubscriberSettings& settings);
  /// True without a session.
  bool unsubscribe(const std::string& stream_id);

  /// The samples are copied.
  bool addAudio(const MRAudioData& audio_data);
  /// The frame is taken over, and destroyed if refused.
  bool addVideo(std::unique_ptr<MRVideoFrame> frame);
  /// True when at least one side was cleared.
  bool clearMediaBuffers();
  MediaBufferStats getCurrentBufferStats();
  /// Empty until the session is joined.
  MRConnectionInfo getSessionConnectionInfo();

  /// "off", "trace", "debug", "info", "warn" or "error" in any case, for this log and the
  /// library's; any other word does nothing.
  void setLogLevel(const std::string& level);

  /// Events: they only copy and post.
  void onSessionConnected(const std::string& session_id) override;
  void onSessionDisconnected(const std::string& session_id) override;
  void onSessionError(const std::string& session_id, const std::string& description,
                      int code) override;
  void onStreamReceived(const std::string& session_id, const MRStream& stream) override;
  void onStreamDropped(const std::string& session_id, const MRStreamInfo& stream_info) override;
  void onConnectionCreated(const std::string& session_id, const MRConnection& connection) override;
  void onConnectionDropped(const std::string& session_id, const MRConnection& connection) override;
  void onSessionMediaBufferDrained(const MediaBufferStats& stats) override;

 private:
  void onSessionAudioData(const MRAudioData& audio_data);
  void onSessionReadyToPublish(const std::string& session_id);

  bool connectInternal(MRSessionInfo& session_info, const MRSessionSettings& session_settings);
  bool disconnectInternal();
  /// Ends the session that an event came from, unless another one has taken its place since.
  void endSession(uint64_t generation);
  static bool chooseEndpoint(MRSessionInfo& session_info);
  void installDrainedCallbacks();
  MediaBufferStats getCurrentBufferStatsInternal() const;

  static std::atomic<bool> isSntLibraryInitialised_;
  static const log4cxx::LoggerPtr& logger_;

  EventQueue event_queue_;
  const MRSessionCallbacks session_callbacks_;
  MRSessionSettings session_settings_;

  /// Read by the renderer's thread, possibly while the next session is being connected, so ids once
  /// published to it are kept.
  std::atomic<bool> is_running_{false};
  std::set<std::string> audio_session_ids_;  ///< the worker's
  std::atomic<const std::string*> audio_session_id_{nullptr};

  /// Incremented by each attempt to connect, to recognise queued events of an earlier session.
  std::atomic<uint64_t> session_generation_{0};

  std::unique_ptr<MRAudioDevice> audio_device_wrapper_;
  std::shared_ptr<MRSession> session_;
  MRPublisherManager publisher_manager_;
  MRSubscriberManager subscriber_manager_;
};

/// Whether the two are equal, ignoring the case of ASCII letters.
bool stringCaseInsensitiveCompare(const std::string& a, const std::string& b);
