#include "controller/mr_controller.h"

#include <sarnet/sarnet.h>

#include <utility>

#include "support/logger.h"
#include "support/logs_initializer.h"

const log4cxx::LoggerPtr& MRController::logger_ = lastingLogger("MRController");
std::atomic<bool> MRController::isSntLibraryInitialised_{false};

MRController::MRController(MRSessionCallbacks callbacks)
    : event_queue_("MRController"),
      session_callbacks_(std::move(callbacks)),
      audio_device_wrapper_(std::make_unique<MRAudioDevice>(
          [this](const MRAudioData& audio_data) { onSessionAudioData(audio_data); })),
      publisher_manager_(event_queue_),
      subscriber_manager_(event_queue_) {
  LogsInitializer::init();
  LOG4CXX_DEBUG(logger_, "MRController::MRController");
  event_queue_.start();
  initSntLibrary();
}

MRController::~MRController() {
  LOG4CXX_DEBUG(logger_, "MRController::~MRController");
  disconnect();
  event_queue_.stop();
  // A stream that arrived while the session ended must not be deleted after srn_destroy.
  subscriber_manager_.discardStreams();
  deinitSntLibrary();
  // These refer to members that are destroyed before the device.
  audio_device_wrapper_->setOnCapturerStartedCallback({});
  audio_device_wrapper_->setOnAudioBuffersDrainedCallback({});
}

bool MRController::initSntLibrary() {
  if (isSntLibraryInitialised_) return true;
  if (srn_init(nullptr) != SRN_SUCCESS) {
    LOG4CXX_ERROR(logger_, "MRController::initSntLibrary: Sarnet couldn't init the library");
    return false;
  }
  isSntLibraryInitialised_ = true;
  return true;
}

void MRController::deinitSntLibrary() {
  isSntLibraryInitialised_ = false;
  srn_destroy();
}

std::string MRController::publish(const MRPublisherSettings& settings,
                                  const MRPublisherCallbacks& callbacks) {
  return event_queue_.postAndWait<std::string>([this, &settings, &callbacks] {
    std::string publisher_id = publisher_manager_.publish(settings, callbacks, session_);
    if (!publisher_id.empty()) installDrainedCallbacks();
    return publisher_id;
  });
}

void MRController::installDrainedCallbacks() {
  const MRPublisherSettings settings = publisher_manager_.getSettings();
  // A drained side is reported as zero without measuring it.
  audio_device_wrapper_->setOnAudioBuffersDrainedCallback([this, has_video = settings.has_video] {
    MediaBufferStats stats;
    stats.audio_stats = AudioBufferStats{0};
    if (has_video) stats.video_stats = getCurrentBufferStatsInternal().video_stats;
    onSessionMediaBufferDrained(stats);
  });
  publisher_manager_.setOnVideoBufferDrainedCallback([this, has_audio = settings.has_audio] {
    MediaBufferStats stats;
    stats.video_stats = VideoBufferStats{0};
    if (has_audio) stats.audio_stats = getCurrentBufferStatsInternal().audio_stats;
    onSessionMediaBufferDrained(stats);
  });
}

bool MRController::unpublish() {
  return event_queue_.postAndWait<bool>([this] { return publisher_manager_.unpublish(); });
}

std::string MRController::subscribe(const std::string& stream_id,
                                    const MRSubscriberCallbacks& callbacks,
                                    const MRSubscriberSettings& settings) {
  return event_queue_.postAndWait<std::string>([this, &stream_id, &callbacks, &settings] {
    return subscriber_manager_.subscribe(stream_id, callbacks, session_, settings);
  });
}

bool MRController::unsubscribe(const std::string& stream_id) {
  if (!isRunning()) {
    LOG4CXX_DEBUG(logger_, "MRController::unsubscribe: Not connected to any session.");
    return true;
  }
  return event_queue_.postAndWait<bool>(
      [this, &stream_id] { return subscriber_manager_.unsubscribe(stream_id); });
}

bool MRController::addAudio(const MRAudioData& audio_data) {
  if (!is_running_) {
    LOG4CXX_WARN(logger_, "MRController::addAudio: Not connected to any session.");
    return false;
  }
  return audio_device_wrapper_->addAudio(audio_data);
}

bool MRController::addVideo(std::unique_ptr<MRVideoFrame> frame) {
  if (!is_running_) {
    LOG4CXX_WARN(logger_, "MRController::addVideo: Not connected to any session.");
    return false;
  }
  return publisher_manager_.addVideo(std::move(frame));
}

bool MRController::clearMediaBuffers() {
  return event_queue_.postAndWait<bool>([this] {
    if (!is_running_) {
      LOG4CXX_WARN(logger_, "MRController::clearMediaBuffers: Not connected to any session.");
      return false;
    }
    const bool audio_cleared = audio_device_wrapper_->clearAudioBuffers();
    const bool video_cleared = publisher_manager_.clearVideoBuffers();
    return audio_cleared || video_cleared;
  });
}

MRConnectionInfo MRController::getSessionConnectionInfo() {
  return event_queue_.postAndWait<MRConnectionInfo>([this] {
    if (session_ == nullptr) {
      LOG4CXX_WARN(logger_, "MRController::getSessionConnectionInfo: No session");
      return MRConnectionInfo{};
    }
    return session_->getSessionConnectionInfo();
  });
}

MediaBufferStats MRController::getCurrentBufferStats() {
  return event_queue_.postAndWait<MediaBufferStats>(
      [this] { return getCurrentBufferStatsInternal(); });
}

MediaBufferStats MRController::getCurrentBufferStatsInternal() const {
  const MRPublisherSettings settings = publisher_manager_.getSettings();
  MediaBufferStats stats;
  // The audio buffer is the device's and outlives the publisher; the video buffer is the
  // publisher's.
  if (audio_device_wrapper_ != nullptr && settings.has_audio) {
    stats.audio_stats = AudioBufferStats{audio_device_wrapper_->getAudioBufferDuration().count()};
  }
  if (publisher_manager_.isPublishing() && settings.has_video) {
    stats.video_stats = VideoBufferStats{publisher_manager_.getVideoBufferDuration().count()};
  }
  return stats;
}
