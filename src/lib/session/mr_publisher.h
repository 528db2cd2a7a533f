#pragma once

#include <log4cxx/logger.h>
#include <sarnet/sarnet.h>

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

#include "media/mr_video_capturer.h"
#include "media/mr_video_frame.h"
#include "session/mr_publisher_observer.h"
#include "session/mr_session.h"
#include "session/mr_stream.h"
#include "session/srn_handles.h"

/// What to publish.
struct MRPublisherSettings {
  std::string name;
  bool has_audio = false;
  bool has_video = false;
  bool stereo_audio_mode = true;
  bool audio_noise_suppresion = false;
  bool audio_echo_cancellation = false;
  bool audio_processing = false;  ///< the library's own flag is the opposite of this one
  bool audio_enable_dtx = false;  ///< discontinuous transmission
  bool enable_captions = false;
};

std::ostream& operator<<(std::ostream& out, const MRPublisherSettings& settings);

struct MRPublisherInfo {
  std::string publisher_id;
  std::string session_id;

  bool isValid() const { return !publisher_id.empty(); }
};

std::ostream& operator<<(std::ostream& out, const MRPublisherInfo& info);

/// One publisher of the library, bound to its session for as long as the object lives, with the
/// injected video that feeds it.
//
/// The video functions may be called on any thread; the object's owner keeps it alive during them.
/// The rest belongs to the worker. The library's events go to the manager and touch nothing of this
/// object.
class MRPublisher {
 public:
  /// Makes and binds a publisher. Empty on failure: the log says why, and nothing is left in the
  /// library. `manager` gets the events and outlives the publisher.
  static std::unique_ptr<MRPublisher> publish(const MRPublisherSettings& settings,
                                              const std::shared_ptr<MRSession>& session,
                                              MRPublisherObserver* manager);

  /// False, with the frame destroyed, when the capturer doesn't run or the frame doesn't fit.
  virtual bool addVideo(std::unique_ptr<MRVideoFrame> frame);

  /// Unbinds and deletes the library publisher, then stops the capturer. Waits for a running
  /// drained callback, so the caller must hold no lock that such a callback may take.
  virtual ~MRPublisher();
  MRPublisher(const MRPublisher&) = delete;
  MRPublisher& operator=(const MRPublisher&) = delete;

  bool clearVideoBuffers();
  std::chrono::milliseconds getVideoBufferDuration() const;
  void setOnVideoBufferDrainedCallback(MRVideoBufferDrainedCallback&& callback);
  MRVideoBufferDrainedCallback getOnVideoBufferDrainedCallback() const;

  const MRPublisherInfo& getPublisherInfo() const { return publisher_info_; }
  const MRStreamInfo& getStreamInfo() const { return stream_info_; }
  void setStreamInfo(const MRStreamInfo& stream_info) { stream_info_ = stream_info; }
  const MRVideoCapturer& getVideoCapturer() const { return video_capturer_; }

 private:
  MRPublisher(const std::shared_ptr<MRSession>& session, MRPublisherObserver* manager,
              const MRVideoSettings& video_settings);

  void createPublisherInfo(const std::string& session_id);
  void unpublish();

  static SrnPublisherSettingsPtr createSrnEquivalent(const MRPublisherSettings& settings);

  static void onStreamCreated(srn_publisher* publisher, void* user_data, const srn_stream* stream);
  static void onStreamDestroyed(srn_publisher* publisher, void* user_data,
                                const srn_stream* stream);
  static void onError(srn_publisher* publisher, void* user_data, const char* description,
                      srn_publisher_error_code code);

  static const log4cxx::LoggerPtr& logger_;

  SrnPublisherPtr publisher_;
  std::shared_ptr<MRSession> session_;
  MRPublisherInfo publisher_info_;
  MRStreamInfo stream_info_;
  srn_publisher_callbacks callbacks_;  ///< the library reads it by address
  MRVideoCapturer video_capturer_;
};
