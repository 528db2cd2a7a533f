#pragma once

#include <memory>
#include <string>
#include <vector>

#include "relay/main_loop.h"

namespace sarnet::relay {

// What both kinds of peer connection need to know.
struct PeerSettings {
  // Where observers are told and the calls of a peer are made.
  std::shared_ptr<MainLoop> loop;
  // Talks over 127.0.0.1 alone, for a server on this machine.
  bool loopback = false;
  // How long received packets may wait for those that overtook them, in milliseconds.
  unsigned jitter_ms = 200;
  // "stun:host:port" and "turn:user:password@host:port", the latter also with "?transport=tcp", or
  // "turns:" for TURN over TLS.
  std::vector<std::string> ice_servers;
};

// Told by one peer on the main loop's thread, never from inside a call to that peer, never after
// its stop(). Must stay valid until then.
class PeerObserver {
 public:
  virtual ~PeerObserver() = default;
  // `type` is "offer" or "answer"; candidates follow one by one.
  virtual void on_local_description(const std::string& type, const std::string& sdp) = 0;
  // An empty candidate: there will be no more.
  virtual void on_local_candidate(unsigned mline, const std::string& candidate) = 0;
  // Media may flow. Again after a break that healed.
  virtual void on_peer_connected() = 0;
  // The connection is of no more use; the text says at which step it failed. Once.
  virtual void on_peer_failed(const std::string& reason) = 0;
};

}  // namespace sarnet::relay
