#include "session/mr_subscriber_manager.h"

#include <utility>

#include "support/logger.h"

const log4cxx::LoggerPtr& MRSubscriberManager::logger_ = lastingLogger("MRSubscriberManager");

MRSubscriberManager::MRSubscriberManager(EventQueue& event_queue) : event_queue_(event_queue) {
  LOG4CXX_DEBUG(logger_, "MRSubscriberManager::MRSubscriberManager");
}

MRSubscriberManager::~MRSubscriberManager() {
  LOG4CXX_DEBUG(logger_, "MRSubscriberManager::~MRSubscriberManager");
  reset();
}

void MRSubscriberManager::addStream(const std::string& stream_id, const MRStream& stream) {
  event_queue_.requireWorkerThread();
  LOG4CXX_DEBUG(logger_, "MRSubscriberManager::addStream: stream_id:" << stream_id);
  if (hasStream(stream_id)) {
    LOG4CXX_WARN(logger_,
                 "MRSubscriberManager::addStream: Stream already exists. stream_id:" << stream_id);
    return;
  }
  streams_.emplace(stream_id, stream);
}

void MRSubscriberManager::removeStream(const std::string& stream_id) {
  event_queue_.requireWorkerThread();
  LOG4CXX_DEBUG(logger_, "MRSubscriberManager::removeStream: stream_id:" << stream_id);
  if (!hasStream(stream_id)) {
    LOG4CXX_WARN(logger_, "MRSubscriberManager::removeStream: Stream doesn't exist. stream_id:"
                              << stream_id);
    return;
  }
  eraseSubscriber(stream_id);
  streams_.erase(stream_id);
}

std::string MRSubscriberManager::subscribe(const std::string& stream_id,
                                           const MRSubscriberCallbacks& callbacks,
                                           const std::shared_ptr<MRSession>& session,
                                           const MRSubscriberSettings& settings) {
  event_queue_.requireWorkerThread();
  LOG4CXX_INFO(logger_, "MRSubscriberManager::subscribe: stream_id:" << stream_id);
  LOG4CXX_INFO(logger_, "MRSubscriberManager::subscriber: settings:" << settings);
  const auto stream = streams_.find(stream_id);
  if (stream == streams_.end()) {
    LOG4CXX_WARN(logger_,
                 "MRSubscriberManager::subscribe: Stream not connected. stream_id:" << stream_id);
    return {};
  }
  if (hasSubscriber(stream_id)) {
    LOG4CXX_WARN(logger_, "MRSubscriberManager::subscribe: Already subscribed to stream. stream_id:"
                              << stream_id);
    return {};
  }
  std::shared_ptr<MRSubscriber> subscriber =
      MRSubscriber::subscribe(stream->second, session, this, settings);
  if (subscriber == nullptr) {
    LOG4CXX_ERROR(
        logger_,
        "MRSubscriberManager::subscribe: Couldn't subscribe to stream. stream_id:" << stream_id);
    return {};
  }
  subscriber->setDataCallbacks(callbacks.data, stream->second.getStreamInfo());
  std::string subscriber_id = subscriber->getSubscriberInfo().subscriber_id;
  LOG4CXX_DEBUG(logger_, "MRSubscriberManager::subscribe: Successfully subscribed to stream_id:"
                             << stream_id << ", subscriber_id:" << subscriber_id);
  subscribers_data_[stream_id] = SubscriberData{std::move(subscriber), callbacks};
  return subscriber_id;
}

bool MRSubscriberManager::unsubscribe(const std::string& stream_id) {
  event_queue_.requireWorkerThread();
  LOG4CXX_DEBUG(logger_, "MRSubscriberManager::unsubscribe: stream_id:" << stream_id);
  if (!eraseSubscriber(stream_id)) {
    LOG4CXX_WARN(logger_, "MRSubscriberManager::unsubscribe: Subscriber doesn't exist. stream_id:"
                              << stream_id);
    return false;
  }
  return true;
}

void MRSubscriberManager::reset() {
  event_queue_.requireWorkerThread();
  LOG4CXX_DEBUG(logger_, "MRSubscriberManager::reset");
  auto subscribers = std::exchange(subscribers_data_, {});
  for (auto& [stream_id, data] : subscribers) {
    retire(data.subscriber);
    data.subscriber.reset();
  }
  streams_.clear();
}

bool MRSubscriberManager::eraseSubscriber(const std::string& stream_id) {
  auto entry = subscribers_data_.extract(stream_id);
  if (entry.empty()) return false;
  entry.mapped().subscriber->unsubscribe();
  retire(entry.mapped().subscriber);
  return true;
}

void MRSubscriberManager::retire(const std::shared_ptr<MRSubscriber>& subscriber) {
  // The subscriber may be ended by its own callable, further up this thread's stack. The callable's
  // reference must not keep the library's subscriber, let alone the session.
  if (subscriber.use_count() > 1) subscriber->release();
}

void MRSubscriberManager::onSubscriberConnected(const MRSubscriber& subscriber) {
  const MRSubscriberInfo info = subscriber.getSubscriberInfo();
  LOG4CXX_DEBUG(logger_, "MRSubscriberManager::onSubscriberConnected: subscriber_info:" << info);
  event_queue_.post([this, stream_id = info.publisher_stream_id, ticket = subscriber.getTicket()] {
    const SubscriberData held = findSubscriber(stream_id, ticket);
    if (held.subscriber == nullptr || !held.subscriber->isSubscribed()) return;
    if (held.callbacks.on_connected != nullptr) held.callbacks.on_connected(*held.subscriber);
  });
}

void MRSubscriberManager::onSubscriberDisconnected(const MRSubscriber& subscriber) {
  const MRSubscriberInfo info = subscriber.getSubscriberInfo();
  LOG4CXX_DEBUG(logger_,
                "MRSubscriberManager::onSubscriberDisconnected: subscriber_info: " << info);
  event_queue_.post([this, stream_id = info.publisher_stream_id, ticket = subscriber.getTicket()] {
    const SubscriberData held = findSubscriber(stream_id, ticket);
    if (held.subscriber == nullptr) return;
    if (held.callbacks.on_disconnected != nullptr) held.callbacks.on_disconnected(*held.subscriber);
    // The callable may have unsubscribed, and even subscribed to the stream anew.
    if (findSubscriber(stream_id, ticket).subscriber != nullptr) subscribers_data_.erase(stream_id);
  });
}

void MRSubscriberManager::onSubscriberError(const MRSubscriber& subscriber,
                                            const std::string& description, int32_t code) {
  const MRSubscriberInfo info = subscriber.getSubscriberInfo();
  LOG4CXX_ERROR(logger_, "MRSubscriberManager::onSubscriberError: subscriber_info: "
                             << info << " code:" << code << " description:" << description);
  event_queue_.post([this, stream_id = info.publisher_stream_id, ticket = subscriber.getTicket(),
                     description = description, code] {
    const SubscriberData held = findSubscriber(stream_id, ticket);
    if (held.subscriber == nullptr || !held.subscriber->isSubscribed()) return;
    if (held.callbacks.on_error != nullptr) {
      held.callbacks.on_error(*held.subscriber, description, code);
    }
  });
}

MRSubscriberManager::SubscriberData MRSubscriberManager::findSubscriber(
    const std::string& stream_id, const void* ticket) const {
  const auto entry = subscribers_data_.find(stream_id);
  if (entry == subscribers_data_.end() || entry->second.subscriber->getTicket() != ticket) {
    return {};
  }
  return entry->second;
}
