#pragma once

#include <chrono>
#include <memory>

#include "base/engine.h"
#include "base/picture.h"
#include "base/statistics.h"
#include "common/mutex.h"
#include "pictures/picture_converter.h"
#include "pictures/video_frame.h"

namespace sarnet {

// The object behind srn_video_capturer: turns the program's frames into pictures and gives them to
// the stream that is published, if any. Any thread; a call waits at most for another thread's
// conversion.
class VideoTrack {
 public:
  explicit VideoTrack(Counters& counters);

  // Where pictures go; null: nowhere.
  void connect(std::shared_ptr<PublishedStream> stream, int fps);

  // Does not use the pixels after it returns. `handle` only distinguishes a repeated frame from a
  // new one. False for a layout or rotation that we do not convert.
  bool provide(int rotation, const VideoFrame& frame, const void* handle);

 private:
  using Clock = std::chrono::steady_clock;

  // How many pictures subscribers and a recording may hold at once.
  static constexpr std::size_t kMaxPictures = 64;

  void count(const Picture& picture, const void* handle) REQUIRES(mutex_);

  Counters& counters_;
  PicturePool pool_{kMaxPictures};
  common::Mutex mutex_;
  PictureConverter converter_ GUARDED_BY(mutex_);
  std::shared_ptr<PublishedStream> stream_ GUARDED_BY(mutex_);
  std::chrono::microseconds period_ GUARDED_BY(mutex_){};
  const void* last_handle_ GUARDED_BY(mutex_) = nullptr;
  Clock::time_point last_time_ GUARDED_BY(mutex_){};
};

}  // namespace sarnet
