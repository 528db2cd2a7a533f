#pragma once

#include <log4cxx/logger.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "runtime/event_queue.h"
#include "session/mr_session.h"
#include "session/mr_stream.h"
#include "session/mr_subscriber.h"
#include "session/mr_subscriber_observer.h"

using on_subscriber_connected = std::function<void(const MRSubscriber& subscriber)>;
using on_subscriber_disconnected = std::function<void(const MRSubscriber& subscriber)>;
using on_subscriber_error = std::function<void(const MRSubscriber& subscriber,
                                               const std::string& description, int32_t code)>;

/// State events on the worker, media on the library's threads; any may be empty. The subscriber is
/// valid during the call, even if the callback ends the subscription.
struct MRSubscriberCallbacks {
  on_subscriber_connected on_connected;
  on_subscriber_disconnected on_disconnected;
  on_subscriber_error on_error;
  MRSubscriberDataCallbacks data;
};

/// The streams that the session has announced and the subscribers made on them, both by stream id.
//
/// No mutex: everything belongs to the queue's worker, except for the three events, which come on
/// library threads and only post. The queue must not run their tasks after this object has gone.
class MRSubscriberManager : public MRSubscriberObserver {
 public:
  explicit MRSubscriberManager(EventQueue& event_queue);
  MRSubscriberManager(const MRSubscriberManager&) = delete;
  MRSubscriberManager& operator=(const MRSubscriberManager&) = delete;

  /// The subscriber's id, or an empty one with nothing changed.
  std::string subscribe(const std::string& stream_id, const MRSubscriberCallbacks& callbacks,
                        const std::shared_ptr<MRSession>& session,
                        const MRSubscriberSettings& settings);
  /// Whether there was a subscriber. None of its callbacks is called for it.
  bool unsubscribe(const std::string& stream_id);

  /// Keeps a copy of the stream, unless there is one already.
  void addStream(const std::string& stream_id, const MRStream& stream);
  /// Also ends a subscription to the stream, without a callback.
  void removeStream(const std::string& stream_id);

  bool hasStream(const std::string& stream_id) const { return streams_.contains(stream_id); }
  bool hasSubscriber(const std::string& stream_id) const {
    return subscribers_data_.contains(stream_id);
  }
  bool hasSubscribers() const { return !subscribers_data_.empty(); }

  /// Ends all subscriptions, then forgets all streams. Raises no callback.
  void reset();
  /// Forgets streams that late events added after `reset`, without logging.
  void discardStreams() { streams_.clear(); }

  void onSubscriberConnected(const MRSubscriber& subscriber) override;
  void onSubscriberDisconnected(const MRSubscriber& subscriber) override;
  void onSubscriberError(const MRSubscriber& subscriber, const std::string& description,
                         int32_t code) override;
  virtual ~MRSubscriberManager();

 private:
  struct SubscriberData {
    std::shared_ptr<MRSubscriber> subscriber;
    MRSubscriberCallbacks callbacks;
  };

  /// A copy of the stream's entry, so that a callback may end the subscription that it is called
  /// for. Empty if the entry is not, or no longer, that of the event's subscriber.
  SubscriberData findSubscriber(const std::string& stream_id, const void* ticket) const;
  /// Whether there was an entry.
  bool eraseSubscriber(const std::string& stream_id);
  /// Before the manager drops its reference: makes sure that the library's subscriber is deleted
  /// with it.
  static void retire(const std::shared_ptr<MRSubscriber>& subscriber);

  static const log4cxx::LoggerPtr& logger_;

  /// Streams first, so that they outlive the subscribers.
  std::map<std::string, MRStream> streams_;
  std::map<std::string, SubscriberData> subscribers_data_;
  EventQueue& event_queue_;
};
