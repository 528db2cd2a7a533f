#pragma once

#include <cstdint>
#include <string>

class MRSubscriber;

/// Receives the state events of a subscriber on a thread of the library: copies, posts and returns.
/// The subscriber is valid during the call only, and only its `getSubscriberInfo` may be called
/// there.
class MRSubscriberObserver {
 public:
  virtual void onSubscriberConnected(const MRSubscriber& subscriber) = 0;
  virtual void onSubscriberDisconnected(const MRSubscriber& subscriber) = 0;
  virtual void onSubscriberError(const MRSubscriber& subscriber, const std::string& description,
                                 int32_t code) = 0;

 protected:
  ~MRSubscriberObserver() = default;
};
