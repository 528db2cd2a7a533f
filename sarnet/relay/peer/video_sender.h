#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "base/picture.h"
#include "relay/peer/gst_handles.h"
#include "relay/peer/peer_connection.h"
#include "relay/peer/stamp_clock.h"

namespace sarnet::relay {

// Published pictures: VP8, or H.264 where the answer wants it. The size is that of the pictures,
// from one to the next.
class VideoSender {
 public:
  // Offers both codecs; before the offer, whose section `mline` this will be. Null when that fails.
  static std::unique_ptr<VideoSender> create(const PeerConnection& peer, int fps, unsigned mline);

  // Makes the encoder, once, after the answer. Main loop's thread.
  void use_codec(const PeerConnection& peer, const std::string& codec);

  // One thread at a time. `now_ns` is the pipeline's running time. Keeps the picture until it is
  // coded; dropped while there is no encoder, and the oldest when three wait.
  void push(const PictureRef& picture, std::int64_t now_ns);

  // Any thread.
  void request_key_frame();

 private:
  explicit VideoSender(int fps);
  void adapt_to(int width, int height);

  const int fps_;
  std::string ssrc_;
  std::string pad_name_;
  ElementPtr source_;
  ElementPtr encoder_;
  bool whole_pairs_ = false;        // H.264 has no odd sizes
  std::atomic<bool> ready_{false};  // set after the above

  // The pushing thread's.
  StampClock clock_;
  int width_ = 0;
  int height_ = 0;
};

}  // namespace sarnet::relay
