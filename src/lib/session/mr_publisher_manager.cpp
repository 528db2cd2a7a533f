#include "session/mr_publisher_manager.h"

#include <utility>

#include "support/logger.h"

MRPublisherManager::MRPublisherManager(EventQueue& event_queue)
    : event_queue_(event_queue), logger_(log4cxx::Logger::getLogger("MRPublisherManager")) {
  LOG4CXX_DEBUG(logger_, "MRPublisherManager::MRPublisherManager");
}

MRPublisherManager::~MRPublisherManager() {
  LOG4CXX_DEBUG(logger_, "MRPublisherManager::~MRPublisherManager");
  is_publishing_ = false;
  destroyPublisher();
}

std::string MRPublisherManager::publish(const MRPublisherSettings& settings,
                                        const MRPublisherCallbacks& callbacks,
                                        const std::shared_ptr<MRSession>& session) {
  event_queue_.requireWorkerThread();
  LOG4CXX_INFO(logger_, "MRPublisherManager::publish: settings:" << settings);
  if (publisher_ != nullptr) {
    LOG4CXX_WARN(logger_, "MRPublisherManager::publish: Already publishing");
    return {};
  }
  if (session == nullptr) {
    LOG4CXX_ERROR(logger_, "MRPublisherManager::publish: Invalid session");
    return {};
  }
  ++generation_;
  std::unique_ptr<MRPublisher> publisher = MRPublisher::publish(settings, session, this);
  if (publisher == nullptr) {
    LOG4CXX_ERROR(logger_, "MRPublisherManager::publish: Couldn't create publisher");
    return {};
  }
  callbacks_ = callbacks;
  {
    const common::LockGuard lock(settings_mutex_);
    settings_ = settings;
  }
  {
    const common::LockGuard lock(publisher_mutex_);
    publisher_ = std::move(publisher);
    publisher_id_ = publisher_->getPublisherInfo().publisher_id;
  }
  is_publishing_ = true;
  LOG4CXX_INFO(logger_, "MRPublisherManager::publish: publisher_id:" << publisher_id_);
  return getPublisherId();
}

bool MRPublisherManager::unpublish() {
  event_queue_.requireWorkerThread();
  LOG4CXX_DEBUG(logger_, "MRPublisherManager::unpublish");
  if (publisher_ == nullptr) {
    LOG4CXX_DEBUG(logger_, "MRPublisherManager::unpublish: No active publisher");
    return true;
  }
  // First, so that events still queued have no effect.
  is_publishing_ = false;
  destroyPublisher();
  resetState();
  LOG4CXX_INFO(logger_, "MRPublisherManager::unpublish: Successfully unpublished");
  return true;
}

void MRPublisherManager::resetState() {
  is_publishing_ = false;
  callbacks_ = {};
  publisher_id_.clear();
}

void MRPublisherManager::destroyPublisher() {
  std::unique_ptr<MRPublisher> publisher;
  const common::LockGuard lock(publisher_mutex_);
  publisher = std::move(publisher_);
}

bool MRPublisherManager::addVideo(std::unique_ptr<MRVideoFrame> frame) {
  const common::LockGuard lock(publisher_mutex_);
  if (publisher_ == nullptr) {
    LOG4CXX_TRACE(logger_, "MRPublisherManager::addVideo: No active publisher");
    return false;
  }
  return publisher_->addVideo(std::move(frame));
}

bool MRPublisherManager::clearVideoBuffers() {
  const common::LockGuard lock(publisher_mutex_);
  if (publisher_ == nullptr) {
    LOG4CXX_TRACE(logger_, "MRPublisherManager::clearVideoBuffers: No active publisher");
    return false;
  }
  return publisher_->clearVideoBuffers();
}

void MRPublisherManager::setOnVideoBufferDrainedCallback(MRVideoBufferDrainedCallback&& callback) {
  const common::LockGuard lock(publisher_mutex_);
  if (publisher_ == nullptr) {
    LOG4CXX_TRACE(logger_,
                  "MRPublisherManager::setOnVideoBufferDrainedCallback: No active publisher");
    return;
  }
  publisher_->setOnVideoBufferDrainedCallback(std::move(callback));
}

MRVideoBufferDrainedCallback MRPublisherManager::getOnVideoBufferDrainedCallback() const {
  const common::LockGuard lock(publisher_mutex_);
  return publisher_ != nullptr ? publisher_->getOnVideoBufferDrainedCallback() : nullptr;
}

std::chrono::milliseconds MRPublisherManager::getVideoBufferDuration() const {
  const common::LockGuard lock(publisher_mutex_);
  return publisher_ != nullptr ? publisher_->getVideoBufferDuration()
                               : std::chrono::milliseconds(0);
}

MRPublisherSettings MRPublisherManager::getSettings() const {
  const common::LockGuard lock(settings_mutex_);
  return settings_;
}

void MRPublisherManager::onStreamCreated(const MRStreamInfo& stream_info) {
  LOG4CXX_DEBUG(logger_, "MRPublisherManager::onStreamCreated");
  event_queue_.post([this, generation = generation_.load(), info = stream_info] {
    if (publisher_ == nullptr || generation != generation_) return;
    publisher_->setStreamInfo(info);
    LOG4CXX_DEBUG(logger_, "MRPublisherManager::onStreamCreated: publisher_info:"
                               << publisher_->getPublisherInfo());
    if (callbacks_.on_stream_created != nullptr) callbacks_.on_stream_created(*publisher_);
  });
}

void MRPublisherManager::onStreamDestroyed() {
  LOG4CXX_DEBUG(logger_, "MRPublisherManager::onStreamDestroyed");
  event_queue_.post([this, generation = generation_.load()] {
    if (!loseStream(generation)) return;
    LOG4CXX_DEBUG(logger_, "MRPublisherManager::onStreamDestroyed: publisher_info:"
                               << publisher_->getPublisherInfo());
    if (callbacks_.on_stream_destroyed != nullptr) callbacks_.on_stream_destroyed(*publisher_);
  });
}

void MRPublisherManager::onError(const std::string& description, int32_t code) {
  LOG4CXX_ERROR(logger_,
                "MRPublisherManager::onError: code:" << code << " description:" << description);
  event_queue_.post([this, generation = generation_.load(), description = description, code] {
    if (!loseStream(generation)) return;
    LOG4CXX_ERROR(logger_, "MRPublisherManager::onError: publisher_info:"
                               << publisher_->getPublisherInfo() << " code:" << code
                               << " description:" << description);
    if (callbacks_.on_error != nullptr) callbacks_.on_error(*publisher_, description, code);
  });
}

bool MRPublisherManager::loseStream(uint64_t generation) {
  if (generation != generation_ || !is_publishing_) return false;
  is_publishing_ = false;
  return publisher_ != nullptr;
}
