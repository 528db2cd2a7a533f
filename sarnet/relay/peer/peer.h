#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "relay/media/transport/dtls_identity.h"
#include "relay/signalling/main_loop.h"

namespace sarnet::relay {

// What both kinds of peer need to know.
struct PeerSettings {
  // Where observers are called and the calls of a peer are made.
  std::shared_ptr<MainLoop> loop;
  // Talks over 127.0.0.1 alone, for a server on this machine.
  bool loopback = false;
  // How long received packets may wait for earlier ones that are missing, in milliseconds.
  unsigned jitter_ms = 300;
  // "stun:host:port" and "turn:user:password@host:port", the latter also with "?transport=tcp".
  std::vector<std::string> ice_servers;
  // What the peers of a session show of themselves; null: each makes its own.
  std::shared_ptr<const DtlsIdentity> identity;
};

// Called by one peer on the main loop's thread, never from inside a call to that peer, never after
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
  // Nothing comes through any more; restart() seeks another way. Once for each break.
  virtual void on_peer_interrupted() = 0;
  // The connection is of no more use; the text names the step that failed. Once.
  virtual void on_peer_failed(const std::string& reason) = 0;
};

// The clock of all media: microseconds that only go forward.
inline std::chrono::microseconds steady_now() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now().time_since_epoch());
}

// Odd, so never 0, which stands for none.
inline std::uint32_t random_ssrc() { return std::random_device{}() | 1U; }

}  // namespace sarnet::relay
