#pragma once

#include <memory>
#include <string>

#include "base/engine.h"
#include "relay/peer/peer_connection.h"

namespace sarnet::relay {

// One subscribed stream on its way from the server. All calls on the main loop's thread. The sink
// gets blocks of exactly 10 ms of 48 kHz audio, I420 pictures and captions, each kind from one
// streaming thread of this peer, until stop() has returned; its state events (subscribed() and the
// like) are left to the caller.
class ReceivingPeer {
 public:
  // Null, and `error` set, when a part of the media stack is not installed.
  static std::shared_ptr<ReceivingPeer> create(const PeerSettings& peer,
                                               std::shared_ptr<MediaSink> sink,
                                               PeerObserver& observer, std::string& error);
  virtual ~ReceivingPeer() = default;

  // Makes the answer, for which the observer is told. Again with a new offer to renegotiate.
  virtual void set_remote_offer(const std::string& sdp) = 0;
  // May come before the offer. An empty text: no more candidates.
  virtual void add_remote_candidate(unsigned mline, const std::string& candidate) = 0;
  // Takes some milliseconds, and waits for calls of the sink under way. May be repeated; must
  // precede the last release.
  virtual void stop() = 0;
};

}  // namespace sarnet::relay
