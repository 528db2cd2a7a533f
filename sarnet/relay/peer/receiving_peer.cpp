#include "relay/peer/receiving_peer.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "base/log.h"
#include "relay/media/sdp/negotiation.h"
#include "relay/peer/caption_text.h"

namespace sarnet::relay {
namespace {

// The server passes text on only to those that opened a channel of that name themselves.
constexpr const char* kChannel = "JanusDataChannel";

// How long sound waits for packets that were overtaken or lost. Later than that the decoder fills
// them in, and what waits behind them would come in a burst.
constexpr unsigned kSoundWaitMs = 40;

using Format = SubscriptionReceiver::Format;

SubscriptionReceiver::Settings receiver_settings(const PeerSettings& peer) {
  return {.own_ssrc = random_ssrc(),
          .audio_patience = std::chrono::milliseconds(std::min(kSoundWaitMs, peer.jitter_ms)),
          .video_patience = std::chrono::milliseconds(peer.jitter_ms)};
}

std::optional<Format> format_of(const sdp::Codec& codec) {
  Format format;
  format.payload_type = static_cast<std::uint8_t>(codec.payload);
  format.answers_nack = std::ranges::find(codec.feedback, "nack") != codec.feedback.end();
  if (sdp::is_codec(codec, "opus")) {
    if (const auto stereo = sdp::fmtp_value(codec, "sprop-stereo")) {
      format.channels = *stereo == "1" ? 2 : 1;
    }
  } else if (sdp::is_codec(codec, "VP8")) {
    format.kind = Format::Kind::kVp8;
  } else if (sdp::is_codec(codec, "H264")) {
    format.kind = Format::Kind::kH264;
  } else if (sdp::is_codec(codec, "rtx")) {
    format.kind = Format::Kind::kRetransmission;
    const std::string_view repairs = sdp::fmtp_value(codec, "apt").value_or("");
    std::from_chars(repairs.data(), repairs.data() + repairs.size(), format.repairs);
  } else {
    return std::nullopt;
  }
  return format;
}

std::vector<Format> formats_of(const sdp::Description& description) {
  std::vector<Format> formats;
  for (const sdp::Section& section : description.sections) {
    if (!section.accepted) continue;
    for (const sdp::Codec& codec : section.codecs) {
      if (const auto format = format_of(codec)) formats.push_back(*format);
    }
  }
  return formats;
}

}  // namespace

std::shared_ptr<ReceivingPeer> ReceivingPeer::create(const PeerSettings& peer,
                                                     std::shared_ptr<MediaSink> sink,
                                                     PeerObserver& observer, std::string& error) {
  const auto identity = peer.identity ? peer.identity : DtlsIdentity::create(error);
  if (!identity) return nullptr;
  auto self = std::make_shared<ReceivingPeer>(peer, std::move(sink), observer);
  self->transport_ = MediaTransport::create({.loop = peer.loop,
                                             .identity = identity,
                                             .offers = false,
                                             .loopback = peer.loopback,
                                             .ice_servers = peer.ice_servers,
                                             .channel_label = kChannel},
                                            *self, error);
  return self->transport_ ? self : nullptr;
}

ReceivingPeer::ReceivingPeer(const PeerSettings& peer, std::shared_ptr<MediaSink> sink,
                             PeerObserver& observer)
    : settings_(peer),
      sink_(std::move(sink)),
      observer_(observer),
      receiver_(receiver_settings(peer), *sink_, *this),
      timer_(*settings_.loop, [this] {
        receiver_.advance(steady_now());
        schedule();
      }) {}

ReceivingPeer::~ReceivingPeer() { stop(); }

void ReceivingPeer::set_remote_offer(const std::string& text) {
  if (stopped_ || failed_) return;
  sdp::Description offer;
  std::string fault;
  if (sdp::read_description(text, offer, fault) && offer_) {
    fault = sdp::fault_of_successor(*offer_, offer);
  }
  if (!fault.empty()) {
    fail("the server's offer cannot be used: " + fault);
    return;
  }
  // First the other side's: it may restart ICE, and then our own names change.
  transport_->set_remote(offer, offer.transport.setup == sdp::Setup::kPassive);
  const sdp::Description answer = sdp::make_answer(offer, transport_->local_info());
  receiver_.set_formats(formats_of(offer));
  offer_ = std::move(offer);
  static const std::uint64_t session = random_ssrc();
  const std::string sdp = sdp::write_description(answer, session, ++answers_);
  settings_.loop->post([weak = weak_from_this(), sdp] {
    const auto self = weak.lock();
    if (!self || self->stopped_) return;
    self->observer_.on_local_description("answer", sdp);
    if (!self->stopped_ && !std::exchange(self->gathers_, true)) self->transport_->gather();
  });
  for (const std::string& candidate : std::exchange(early_candidates_, {})) {
    transport_->add_remote_candidate(candidate);
  }
}

void ReceivingPeer::restart() {
  if (!stopped_ && !failed_ && transport_->renew_way()) gathers_ = false;
}

void ReceivingPeer::add_remote_candidate(unsigned, const std::string& candidate) {
  if (stopped_) return;
  if (offer_) {
    transport_->add_remote_candidate(candidate);
  } else {
    early_candidates_.push_back(candidate);
  }
}

ReceivingPeer::Arrivals ReceivingPeer::arrivals() const {
  Arrivals all;
  const auto add = [&all](const ReorderBuffer::Counters& counters) {
    all.received += counters.received;
    all.lost += counters.lost;
  };
  if (const AudioReceiver* audio = receiver_.audio()) add(audio->counters());
  if (const VideoReceiver* video = receiver_.video()) add(video->packets());
  return all;
}

void ReceivingPeer::stop() {
  if (std::exchange(stopped_, true)) return;
  timer_.stop();
  if (transport_) transport_->stop();
  log_counters();
}

void ReceivingPeer::log_counters() const {
  const SubscriptionReceiver::Counters& counters = receiver_.counters();
  if (const VideoReceiver* video = receiver_.video()) {
    SARNET_LOG(kDebug, "relay: pictures: "
                           << video->packets().received << " packets, " << video->packets().lost
                           << " lost, " << video->packets().late << " too late, "
                           << video->counters().pictures << " shown, " << video->frames().broken()
                           << " broken, " << video->counters().undecodable << " undecodable, "
                           << counters.key_frames_asked << " key frames requested");
  }
  if (const AudioReceiver* audio = receiver_.audio()) {
    SARNET_LOG(kDebug, "relay: sound: " << audio->counters().received << " packets, "
                                        << audio->counters().lost << " lost, "
                                        << audio->counters().late << " too late");
  }
  if (counters.asked_again + counters.malformed + counters.unknown != 0) {
    SARNET_LOG(kDebug, "relay: " << counters.asked_again << " packets requested again, "
                                 << counters.retransmissions << " of the retransmission format, "
                                 << counters.malformed << " malformed, " << counters.unknown
                                 << " of unknown formats");
  }
}

void ReceivingPeer::fail(const std::string& reason) {
  if (std::exchange(failed_, true)) return;
  settings_.loop->post([weak = weak_from_this(), reason] {
    const auto self = weak.lock();
    if (self && !self->stopped_) self->observer_.on_peer_failed(reason);
  });
}

void ReceivingPeer::on_local_candidate(const std::string& candidate) {
  observer_.on_local_candidate(0, candidate);
}

void ReceivingPeer::on_transport_connected() { observer_.on_peer_connected(); }

void ReceivingPeer::on_transport_failed(const std::string& reason) {
  if (!std::exchange(failed_, true)) observer_.on_peer_failed(reason);
}

void ReceivingPeer::on_rtp(std::span<const std::uint8_t> packet) {
  const bool knew = receiver_.counters().unknown != 0;
  receiver_.take_rtp(packet, steady_now());
  if (!knew && receiver_.counters().unknown != 0) {
    SARNET_LOG(kWarn, "relay: the server sends media of a kind that was not negotiated");
  }
  schedule();
}

void ReceivingPeer::on_rtcp(std::span<const std::uint8_t> packet) {
  receiver_.take_rtcp(packet, steady_now());
}

void ReceivingPeer::on_text(std::string_view text) {
  if (const auto caption = decode_caption(text))
    sink_->on_caption(caption->text, caption->is_final);
}

void ReceivingPeer::send_rtcp(Bytes packet) { transport_->send_rtcp(packet); }

void ReceivingPeer::schedule() {
  if (!stopped_) timer_.arm(receiver_.deadline());
}

}  // namespace sarnet::relay
