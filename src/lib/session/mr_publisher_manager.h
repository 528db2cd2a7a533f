#pragma once

#include <log4cxx/logger.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "common/mutex.h"
#include "media/mr_video_capturer.h"
#include "media/mr_video_frame.h"
#include "runtime/event_queue.h"
#include "session/mr_publisher.h"
#include "session/mr_publisher_observer.h"
#include "session/mr_session.h"

using on_publisher_stream_created = void (*)(const MRPublisher& publisher);
using on_publisher_stream_destroyed = void (*)(const MRPublisher& publisher);
using on_publisher_error = void (*)(const MRPublisher& publisher, const std::string& description,
                                    int32_t code);

/// Called on the worker; any may be null. The publisher is valid until the callback returns, or
/// until the callback itself unpublishes.
struct MRPublisherCallbacks {
  on_publisher_stream_created on_stream_created = nullptr;
  on_publisher_stream_destroyed on_stream_destroyed = nullptr;
  on_publisher_error on_error = nullptr;
};

/// Owns the one publisher. A publisher that has lost its stream or failed stays in place, and
/// refuses another `publish`, until `unpublish`.
//
/// `publish` and `unpublish` belong to the queue's worker; everything else may be called on any
/// thread. The library's events are posted to the queue, which must not run them after this object
/// has gone.
class MRPublisherManager : public MRPublisherObserver {
 public:
  explicit MRPublisherManager(EventQueue& event_queue);
  MRPublisherManager(const MRPublisherManager&) = delete;
  MRPublisherManager& operator=(const MRPublisherManager&) = delete;

  /// The publisher's id, or an empty one with nothing changed.
  std::string publish(const MRPublisherSettings& settings, const MRPublisherCallbacks& callbacks,
                      const std::shared_ptr<MRSession>& session);
  /// Always true. None of the callbacks is called for it.
  bool unpublish();
  /// True from a successful `publish` to stream loss, error or `unpublish`.
  bool isPublishing() const { return is_publishing_.load(); }

  bool addVideo(std::unique_ptr<MRVideoFrame> frame);
  bool clearVideoBuffers();
  /// Ignored when there is no publisher; destroyed with the publisher.
  void setOnVideoBufferDrainedCallback(MRVideoBufferDrainedCallback&& callback);
  MRVideoBufferDrainedCallback getOnVideoBufferDrainedCallback() const;
  std::chrono::milliseconds getVideoBufferDuration() const;
  /// Those of the last successful `publish`.
  MRPublisherSettings getSettings() const;

  void onStreamCreated(const MRStreamInfo& stream_info) override;
  void onStreamDestroyed() override;
  void onError(const std::string& description, int32_t code) override;
  virtual ~MRPublisherManager();

 private:
  std::string getPublisherId() const { return publisher_id_; }
  void resetState();
  /// Handles the end of the publisher's stream on the worker. False if this publisher is gone, or
  /// its end is already known.
  bool loseStream(uint64_t generation);
  /// Takes the publisher out under the mutex and destroys it outside: its end waits for the
  /// capturer's thread, which may be waiting for the mutex.
  void destroyPublisher();

  /// Guards the publisher's lifetime against the media calls. Written on the worker only, which
  /// therefore reads without it.
  mutable common::Mutex publisher_mutex_;
  std::unique_ptr<MRPublisher> publisher_;

  std::atomic<bool> is_publishing_{false};
  /// Incremented by each `publish`, to recognise queued events of an earlier publisher.
  std::atomic<uint64_t> generation_{0};
  MRPublisherCallbacks callbacks_;
  std::string publisher_id_;

  mutable common::Mutex settings_mutex_;  ///< a leaf
  MRPublisherSettings settings_ GUARDED_BY(settings_mutex_);

  EventQueue& event_queue_;
  const log4cxx::LoggerPtr logger_;
};
