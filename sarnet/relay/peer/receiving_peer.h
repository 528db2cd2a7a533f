#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/engine.h"
#include "relay/media/receive/subscription_receiver.h"
#include "relay/media/sdp/description.h"
#include "relay/media/transport/media_transport.h"
#include "relay/peer/deadline_timer.h"
#include "relay/peer/peer.h"

namespace sarnet::relay {

// One subscribed stream on its way from the server: its connection, and what makes sound and
// pictures of its packets. Everything runs on the main loop's thread, decoding too; no thread of
// its own. The sink gets blocks of exactly 10 ms of 48 kHz audio, I420 pictures and captions until
// stop() has returned; its state events (subscribed() and the like) are left to the caller.
class ReceivingPeer : public std::enable_shared_from_this<ReceivingPeer>,
                      private TransportObserver,
                      private SubscriptionReceiver::Output {
 public:
  // Null, and `error` set, when it cannot be set up.
  static std::shared_ptr<ReceivingPeer> create(const PeerSettings& peer,
                                               std::shared_ptr<MediaSink> sink,
                                               PeerObserver& observer, std::string& error);
  ReceivingPeer(const PeerSettings& peer, std::shared_ptr<MediaSink> sink, PeerObserver& observer);
  ~ReceivingPeer() override;
  ReceivingPeer(const ReceivingPeer&) = delete;
  ReceivingPeer& operator=(const ReceivingPeer&) = delete;

  // Makes the answer, for which the observer is told. Again with a new offer to renegotiate; one
  // that contradicts the last fails the peer.
  void set_remote_offer(const std::string& sdp);
  // Before an offer by which the server, being asked to, seeks another way: so do we.
  void restart();
  // After a change of the network: a break is noticed sooner.
  void check_way() { transport_->check_way(); }
  // Packets of media so far.
  struct Arrivals {
    std::uint64_t received = 0;
    std::uint64_t lost = 0;
  };
  Arrivals arrivals() const;
  // May come before the offer. An empty text: no more candidates.
  void add_remote_candidate(unsigned mline, const std::string& candidate);
  // Frees the sockets at once. May be repeated; must precede the last release.
  void stop();

 private:
  void on_local_candidate(const std::string& candidate) override;
  void on_transport_connected() override;
  void on_transport_interrupted() override { observer_.on_peer_interrupted(); }
  void on_transport_failed(const std::string& reason) override;
  void on_rtp(std::span<const std::uint8_t> packet) override;
  void on_rtcp(std::span<const std::uint8_t> packet) override;
  void on_text(std::string_view text) override;
  void send_rtcp(Bytes packet) override;

  void fail(const std::string& reason);
  void schedule();
  void log_counters() const;

  const PeerSettings settings_;
  const std::shared_ptr<MediaSink> sink_;
  PeerObserver& observer_;
  std::shared_ptr<MediaTransport> transport_;
  SubscriptionReceiver receiver_;
  std::optional<sdp::Description> offer_;  // the last that was answered
  std::vector<std::string> early_candidates_;
  unsigned answers_ = 0;
  bool gathers_ = false;
  DeadlineTimer timer_;
  bool failed_ = false;
  bool stopped_ = false;
};

}  // namespace sarnet::relay
