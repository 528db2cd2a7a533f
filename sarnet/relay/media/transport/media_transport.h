#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "relay/media/sdp/description.h"
#include "relay/media/transport/data_channel.h"
#include "relay/media/transport/dtls_identity.h"
#include "relay/media/transport/dtls_link.h"
#include "relay/media/transport/ice_agent.h"
#include "relay/media/transport/srtp_pair.h"
#include "relay/signalling/main_loop.h"

namespace sarnet::relay {

// Told on the loop's thread, never after stop(). The first four come in turns of their own, never
// from inside a call; the last three from inside the reading of a packet, and their bytes are
// borrowed for the call. From inside any of them the transport may be stopped and let go.
class TransportObserver {
 public:
  virtual ~TransportObserver() = default;
  // "candidate:..."; an empty one: there will be no more.
  virtual void on_local_candidate(const std::string& candidate) = 0;
  // Media may flow. Again after a break that healed.
  virtual void on_transport_connected() = 0;
  // Nothing has come through for some seconds, or ICE has lost its way. Sending goes on as long as
  // there is a way; renew_way() seeks another. Once for each break.
  virtual void on_transport_interrupted() = 0;
  // The transport is of no more use; the text names the step at which it failed. Once.
  virtual void on_transport_failed(const std::string& reason) = 0;
  // Decrypted packets, 12 and 8 bytes at least.
  virtual void on_rtp(std::span<const std::uint8_t> packet) = 0;
  virtual void on_rtcp(std::span<const std::uint8_t> packet) = 0;
  virtual void on_text(std::string_view text) = 0;
};

struct TransportSettings {
  std::shared_ptr<MainLoop> loop;
  // The session's; peers share it.
  std::shared_ptr<const DtlsIdentity> identity;
  // Who makes the first offer leads the choice of a way.
  bool offers = false;
  bool loopback = false;                 // 127.0.0.1 alone
  std::vector<std::string> ice_servers;  // as parse_ice_endpoint() reads them
  std::string channel_label;             // of the data channel that we open; empty: none
};

// The way of one peer's media to and from the server: ICE, DTLS 1.2, SRTP and a data channel, over
// one pair of addresses (rtcp-mux, BUNDLE). All calls on the loop's thread; no thread of its own.
// Sending and receiving allocate nothing but for a new stream and for text, apart from what
// libsrtp2 takes in its crypto library (Debian's, NSS: 5 small blocks a packet with GCM, 14
// without).
class MediaTransport : public std::enable_shared_from_this<MediaTransport>,
                       private IceObserver,
                       private DtlsObserver,
                       private DataChannelObserver {
 public:
  // Null, and `error` set, when it cannot be set up.
  static std::shared_ptr<MediaTransport> create(const TransportSettings& settings,
                                                TransportObserver& observer, std::string& error);
  MediaTransport(const TransportSettings& settings, TransportObserver& observer);
  ~MediaTransport() override;
  MediaTransport(const MediaTransport&) = delete;
  MediaTransport& operator=(const MediaTransport&) = delete;

  // For the own description. An answer asks after set_remote(), which may have restarted ICE.
  sdp::TransportInfo local_info() const;
  // Looks for candidates, which the observer is told. After the own description was sent.
  void gather();
  // What the other side said last, with the candidates in it. `active`: we begin the DTLS
  // handshake; when we answer, if the other side says kPassive (make_answer() has it so), and when
  // we offered, if the answer does. Of later descriptions that is not heeded. New ICE names restart
  // ICE, another certificate fails the transport.
  void set_remote(const sdp::Description& remote, bool active);
  // Seeks another way for the connection that stands: new ICE names, and candidates of the
  // addresses that the machine has now; DTLS, SRTP and the data channel go on. local_info() is
  // another at once. The other side must be told, gather() called, and set_remote() with what it
  // answers. False when there is nothing to seek with.
  bool renew_way();
  // After a change of the network: a break is noticed sooner.
  void check_way();
  // An empty text: no more. What is not understood is passed over.
  void add_remote_candidate(const std::string& candidate);

  // Lost, and false, while there is no connection. 12 and 8 bytes at least, 1500 at most.
  bool send_rtp(std::span<const std::uint8_t> packet);
  bool send_rtcp(std::span<const std::uint8_t> packet);
  // Lost, and false, while no data channel is open, when too much waits already or it is longer
  // than the other side takes, and in any case than 1 MiB.
  bool send_text(std::string_view text);

  // The observer is left alone from now on; frees the sockets. May be repeated.
  void stop();

 private:
  void on_ice_candidate(const std::string& candidate) override;
  void on_ice_way(bool open) override;
  void on_ice_failed() override;
  void on_ice_packet(std::span<std::uint8_t> packet) override;
  void send_datagram(std::span<const std::uint8_t> datagram) override;
  void on_dtls_ready() override;
  void on_dtls_failed(const std::string& reason) override;
  void on_dtls_data(std::span<const std::uint8_t> data) override;
  void send_sctp(std::span<const std::uint8_t> packet) override;
  void on_channel_text(std::string_view text) override;

  std::shared_ptr<IceAgent> make_agent(std::string& error);
  void open_channel();
  void update();
  void hear();
  void watch();
  void interrupt();
  void post(std::function<void(MediaTransport&)> task);
  void fail(const std::string& reason);

  const TransportSettings settings_;
  TransportObserver& observer_;
  std::shared_ptr<IceAgent> ice_;
  DtlsLink dtls_;
  SrtpPair srtp_;
  std::shared_ptr<DataChannel> channel_;
  std::optional<DataChannel::Settings> channel_settings_;
  MainLoop::Timer limit_;  // of the first connection
  MainLoop::Timer watch_;  // each second, once connected
  MainLoop::Timer check_;
  int quiet_seconds_ = 0;
  std::uint64_t heard_ = 0;         // packets
  std::uint64_t heard_before_ = 0;  // at the last look
  bool interrupted_ = false;
  bool way_open_ = false;
  bool connected_ = false;  // packets can be sent
  bool told_connected_ = false;
  bool ever_connected_ = false;
  bool failed_ = false;
  bool stopped_ = false;
};

}  // namespace sarnet::relay
