#pragma once

#include <memory>
#include <string>

#include "base/engine.h"
#include "relay/peer/peer_connection.h"

namespace sarnet::relay {

struct PublishSettings {
  bool has_audio = true;
  bool has_video = true;
  int fps = 30;
  bool stereo = false;
  bool opus_dtx = false;  // silence is sent as a packet every 400 ms
  bool captions = false;  // opens the data channel that on_caption() writes to
};

// One published stream on its way to the server: Opus, VP8 (H.264 if that is what the answer takes)
// and captions. start(), set_remote_answer(), add_remote_candidate() and stop() are called on the
// main loop's thread; media may come on any thread, one at a time for each kind, from the moment
// that the object exists; what comes before the connection stands, or faster than it can be coded,
// is dropped, the oldest first.
class PublishingPeer : public PublishedStream {
 public:
  // Null, and `error` set, when a part of the media stack is not installed.
  static std::shared_ptr<PublishingPeer> create(const PeerSettings& peer,
                                                const PublishSettings& settings,
                                                PeerObserver& observer, std::string& error);

  // Makes the offer, for which the observer is told.
  virtual void start() = 0;
  virtual void set_remote_answer(const std::string& sdp) = 0;
  // May come before the answer. An empty text: no more candidates.
  virtual void add_remote_candidate(unsigned mline, const std::string& candidate) = 0;
  // Takes some milliseconds; afterwards media are dropped and the observer is left alone. May be
  // repeated; must precede the last release.
  virtual void stop() = 0;

  // Has the next picture coded as a key frame. Any thread. (What the other side asks for by RTCP is
  // answered without this.)
  virtual void request_key_frame() = 0;
};

}  // namespace sarnet::relay
