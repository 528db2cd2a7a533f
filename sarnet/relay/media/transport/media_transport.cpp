#include "relay/media/transport/media_transport.h"

#include <chrono>
#include <utility>

#include "base/log.h"
#include "relay/media/sdp/negotiation.h"

namespace sarnet::relay {
namespace {

// From the other side's first description to the first connection.
constexpr std::chrono::seconds kConnectLimit{45};

// The server sends reports each second, whatever becomes of the media. So much silence is a break.
constexpr int kQuietSeconds = 4;
// The same after a change of the network, which makes a break likely.
constexpr std::chrono::milliseconds kCheckLimit{1500};

// The first byte tells what a packet is (RFC 7983), the second RTCP from RTP (RFC 5761).
bool is_dtls(std::uint8_t first) { return first >= 20 && first <= 63; }
bool is_media(std::uint8_t first) { return first >= 128 && first <= 191; }
bool is_rtcp_type(std::uint8_t second) { return second >= 192 && second <= 223; }

}  // namespace

std::shared_ptr<MediaTransport> MediaTransport::create(const TransportSettings& settings,
                                                       TransportObserver& observer,
                                                       std::string& error) {
  auto transport = std::make_shared<MediaTransport>(settings, observer);
  transport->ice_ = transport->make_agent(error);
  return transport->ice_ ? transport : nullptr;
}

MediaTransport::MediaTransport(const TransportSettings& settings, TransportObserver& observer)
    : settings_(settings), observer_(observer), dtls_(*settings_.loop, settings_.identity, *this) {}

MediaTransport::~MediaTransport() { stop(); }

std::shared_ptr<IceAgent> MediaTransport::make_agent(std::string& error) {
  return IceAgent::create(*settings_.loop,
                          {.controlling = settings_.offers,
                           .loopback = settings_.loopback,
                           .servers = settings_.ice_servers},
                          *this, error);
}

sdp::TransportInfo MediaTransport::local_info() const {
  return {ice_->ufrag(), ice_->pwd(), settings_.identity->fingerprint(), sdp::Setup::kEither};
}

void MediaTransport::gather() {
  if (stopped_ || ice_->gather()) return;
  // While a way is sought anew, an address may come yet.
  if (!ever_connected_) fail("ICE: there is no local address for media");
}

bool MediaTransport::renew_way() {
  if (stopped_ || failed_) return false;
  std::string error;
  auto fresh = make_agent(error);
  if (!fresh) return false;
  ice_->close();
  ice_ = std::move(fresh);
  way_open_ = false;
  update();
  return true;
}

void MediaTransport::check_way() {
  if (stopped_ || failed_ || !ever_connected_) return;
  check_ = MainLoop::Timer(*settings_.loop, kCheckLimit, [this, before = heard_] {
    if (heard_ == before) interrupt();
  });
}

void MediaTransport::hear() {
  ++heard_;
  if (!interrupted_ || !way_open_) return;
  interrupted_ = false;
  post([](MediaTransport& self) { self.update(); });
}

void MediaTransport::watch() {
  quiet_seconds_ = std::exchange(heard_before_, heard_) == heard_ ? quiet_seconds_ + 1 : 0;
  if (heard_ != 0 && quiet_seconds_ >= kQuietSeconds) interrupt();
}

void MediaTransport::interrupt() {
  if (interrupted_ || failed_ || stopped_) return;
  interrupted_ = true;
  told_connected_ = false;
  post([](MediaTransport& self) {
    if (!self.failed_) self.observer_.on_transport_interrupted();
  });
}

void MediaTransport::set_remote(const sdp::Description& remote, bool active) {
  if (stopped_ || failed_) return;
  const sdp::TransportInfo& info = remote.transport;
  if (!dtls_.expects()) {
    dtls_.expect(info.fingerprint, active);
    limit_ = MainLoop::Timer(*settings_.loop, kConnectLimit, [this] {
      fail("ICE: no way for media to and from the server was found in time");
    });
  } else if (info.fingerprint != dtls_.expected()) {
    fail("DTLS: the other side changed its certificate");
    return;
  }
  const sdp::Section* data = sdp::find_section(remote, sdp::Kind::kData);
  if (data != nullptr && !channel_settings_) {
    // What a peer that names no size takes (RFC 8841, section 6.1).
    const std::uint64_t most = data->max_message_size.value_or(65536);
    channel_settings_ = {.remote_port = data->sctp_port,
                         .even = dtls_.is_active(),
                         .label = settings_.channel_label,
                         .max_text = most == 0 || most > sdp::kMaxText ? sdp::kMaxText : most};
    open_channel();
  }
  if (remote.ice_lite) ice_->lead();
  if (!ice_->set_remote(info.ufrag, info.pwd)) {
    fail("ICE: the other side's names are not taken");
    return;
  }
  for (const std::string& candidate : remote.candidates) ice_->add_remote(candidate);
  if (remote.end_of_candidates) ice_->add_remote("");
}

void MediaTransport::add_remote_candidate(const std::string& candidate) {
  if (!stopped_) ice_->add_remote(candidate);
}

bool MediaTransport::send_rtp(std::span<const std::uint8_t> packet) {
  if (!connected_ || stopped_) return false;
  const auto encrypted = srtp_.protect_rtp(packet);
  return !encrypted.empty() && ice_->send(encrypted);
}

bool MediaTransport::send_rtcp(std::span<const std::uint8_t> packet) {
  if (!connected_ || stopped_) return false;
  const auto encrypted = srtp_.protect_rtcp(packet);
  return !encrypted.empty() && ice_->send(encrypted);
}

bool MediaTransport::send_text(std::string_view text) {
  return !stopped_ && channel_ && channel_->send_text(text);
}

void MediaTransport::stop() {
  if (std::exchange(stopped_, true)) return;
  for (auto* timer : {&limit_, &watch_, &check_}) timer->stop();
  if (channel_) channel_->close();
  dtls_.close();
  if (ice_) ice_->close();
}

void MediaTransport::on_ice_candidate(const std::string& candidate) {
  post([candidate, from = ice_](MediaTransport& self) {
    if (self.ice_ == from) self.observer_.on_local_candidate(candidate);
  });
}

void MediaTransport::on_ice_way(bool open) {
  post([open, from = ice_](MediaTransport& self) {
    if (self.ice_ != from) return;
    self.way_open_ = open;
    if (open) self.dtls_.begin();
    self.update();
  });
}

void MediaTransport::on_ice_failed() {
  if (ever_connected_) {
    interrupt();
  } else {
    fail("ICE: no way for media to and from the server was found");
  }
}

void MediaTransport::on_ice_packet(std::span<std::uint8_t> packet) {
  if (stopped_ || packet.size() < 2) return;
  const auto self = shared_from_this();
  if (is_media(packet[0])) {
    const bool rtcp = is_rtcp_type(packet[1]);
    const auto decrypted = rtcp ? srtp_.unprotect_rtcp(packet) : srtp_.unprotect_rtp(packet);
    if (decrypted.empty()) return;
    hear();
    if (rtcp) {
      observer_.on_rtcp(decrypted);
    } else {
      observer_.on_rtp(decrypted);
    }
  } else if (is_dtls(packet[0])) {
    dtls_.receive(packet);
  }
}

void MediaTransport::send_datagram(std::span<const std::uint8_t> datagram) { ice_->send(datagram); }

void MediaTransport::on_dtls_ready() {
  if (!srtp_.start(dtls_)) {
    fail("SRTP: the other side has no encryption of ours");
    return;
  }
  open_channel();
  post([](MediaTransport& self) { self.update(); });
}

void MediaTransport::on_dtls_failed(const std::string& reason) { fail(reason); }

void MediaTransport::on_dtls_data(std::span<const std::uint8_t> data) {
  if (channel_ && !stopped_) channel_->receive(data);
}

void MediaTransport::send_sctp(std::span<const std::uint8_t> packet) { dtls_.send(packet); }

void MediaTransport::on_channel_text(std::string_view text) {
  const auto self = shared_from_this();
  if (!stopped_) observer_.on_text(text);
}

void MediaTransport::open_channel() {
  if (channel_ || !channel_settings_ || !dtls_.ready() || !srtp_.started()) return;
  DataChannelObserver& observer = *this;
  channel_ = std::make_shared<DataChannel>(settings_.loop, *channel_settings_, observer);
  if (!channel_->start()) {
    SARNET_LOG(kWarn, "relay: no data channel can be opened, captions are left out");
  }
}

void MediaTransport::update() {
  connected_ = way_open_ && dtls_.ready() && srtp_.started() && !failed_;
  // Where nothing was ever sent, the way itself must do.
  if (connected_ && heard_ == 0) interrupted_ = false;
  const bool connected = connected_ && !interrupted_;
  if (std::exchange(told_connected_, connected) == connected || !connected) return;
  if (!std::exchange(ever_connected_, true)) {
    limit_.stop();
    watch_ = MainLoop::Timer(
        *settings_.loop, std::chrono::seconds(1), [this] { watch(); }, true);
  }
  observer_.on_transport_connected();
}

void MediaTransport::post(std::function<void(MediaTransport&)> task) {
  settings_.loop->post([weak = weak_from_this(), task = std::move(task)] {
    const auto self = weak.lock();
    if (self && !self->stopped_) task(*self);
  });
}

void MediaTransport::fail(const std::string& reason) {
  if (std::exchange(failed_, true)) return;
  connected_ = false;
  for (auto* timer : {&limit_, &watch_, &check_}) timer->stop();
  post([reason](MediaTransport& self) { self.observer_.on_transport_failed(reason); });
}

}  // namespace sarnet::relay
