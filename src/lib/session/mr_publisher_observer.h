#pragma once

#include <cstdint>
#include <string>

#include "session/mr_stream.h"

/// Receives the events of a publisher on a thread of the library: copies, posts and returns. It is
/// the publisher's `user_data`, so it outlives the publisher.
class MRPublisherObserver {
 public:
  virtual void onStreamCreated(const MRStreamInfo& stream_info) = 0;
  virtual void onStreamDestroyed() = 0;
  virtual void onError(const std::string& description, int32_t code) = 0;

 protected:
  ~MRPublisherObserver() = default;
};
