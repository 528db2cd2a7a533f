#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "relay/peer/peer.h"
#include "relay/room/relay_settings.h"
#include "relay/signalling/janus_client.h"
#include "relay/signalling/main_loop.h"

namespace sarnet::relay {

inline constexpr const char* kRoomPlugin = "janus.plugin.videoroom";

// What the publications and subscriptions of one session share. Outlives them.
struct RoomAccess {
  std::shared_ptr<MainLoop> loop;
  // Set when the program leaves, on its own thread: no sink is called from then on.
  std::shared_ptr<const std::atomic<bool>> left;
  JanusClient& client;
  const RelaySettings& settings;
  std::string room;
  Credentials credentials;
  ConnectionInfo own;  // once joined
  // Made anew for each session; null: the peers have their own made.
  std::shared_ptr<const DtlsIdentity> identity;

  // A request of that name about the room, with our credentials.
  json request(const char* name) const {
    json body{{"request", name}, {"room", room}};
    if (!credentials.room_token.empty()) body["token"] = credentials.room_token;
    if (!credentials.pin.empty()) body["pin"] = credentials.pin;
    return body;
  }
  PeerSettings peer_settings() const {
    PeerSettings peer;
    peer.loop = loop;
    peer.loopback = settings.loopback;
    peer.jitter_ms = settings.jitter_ms;
    peer.ice_servers = settings.ice_servers;
    peer.identity = identity;
    return peer;
  }
};

// The time limit for establishing the media connection.
inline constexpr std::chrono::seconds kPeerLimit{15};
// How long to wait, after the server hung up, for the reason, which arrives separately.
inline constexpr std::chrono::milliseconds kHangupPatience{1000};

}  // namespace sarnet::relay
