#include "relay/peer/publishing_peer.h"

#include <algorithm>
#include <utility>

#include "base/log.h"
#include "relay/media/sdp/negotiation.h"
#include "relay/peer/caption_text.h"

namespace sarnet::relay {
namespace {

constexpr const char* kChannel = "captions";

std::int64_t nanoseconds(Micros time) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
}

Micros micros(std::int64_t nanoseconds) { return Micros{nanoseconds / 1000}; }

// What 0 on the steady clock is, since the Unix epoch.
Micros wall_clock() {
  return std::chrono::duration_cast<Micros>(std::chrono::system_clock::now().time_since_epoch()) -
         steady_now();
}

}  // namespace

std::shared_ptr<PublishingPeer> PublishingPeer::create(const PeerSettings& peer,
                                                       const PublishSettings& settings,
                                                       PeerObserver& observer, std::string& error) {
  const auto identity = peer.identity ? peer.identity : DtlsIdentity::create(error);
  if (!identity) return nullptr;
  auto self = std::make_shared<PublishingPeer>(peer, settings, observer);
  self->transport_ = MediaTransport::create({.loop = peer.loop,
                                             .identity = identity,
                                             .offers = true,
                                             .loopback = peer.loopback,
                                             .ice_servers = peer.ice_servers,
                                             .channel_label = settings.captions ? kChannel : ""},
                                            *self, error);
  return self->transport_ ? self : nullptr;
}

PublishingPeer::PublishingPeer(const PeerSettings& peer, const PublishSettings& settings,
                               PeerObserver& observer)
    : settings_(peer),
      wanted_(settings),
      observer_(observer),
      audio_ssrc_(random_ssrc()),
      video_ssrc_(random_ssrc()),
      cname_(std::to_string(random_ssrc())),
      sender_({.audio_ssrc = audio_ssrc_, .video_ssrc = video_ssrc_, .cname = cname_}, wall_clock(),
              *this),
      timer_(*settings_.loop,
             [this] {
               sender_.advance(steady_now());
               schedule();
             }),
      opus_(settings.stereo, settings.opus_dtx,
            [this](std::span<const std::uint8_t> packet, Micros stamp, bool begins) {
              post([packet = std::vector<std::uint8_t>(packet.begin(), packet.end()), stamp,
                    begins](PublishingPeer& self) {
                self.sender_.send_audio(packet, stamp, begins, steady_now());
                self.schedule();
              });
            }),
      video_clock_(std::max(settings.fps, 1)) {}

PublishingPeer::~PublishingPeer() { stop(); }

template <class Task>
void PublishingPeer::post(Task task) {
  settings_.loop->post([weak = weak_from_this(), task = std::move(task)] {
    const auto self = weak.lock();
    if (self && !self->stopped_) task(*self);
  });
}

void PublishingPeer::start() {
  offer_ = sdp::make_offer({.audio = wanted_.has_audio,
                            .video = wanted_.has_video,
                            .data = wanted_.captions,
                            .stereo = wanted_.stereo,
                            .dtx = wanted_.opus_dtx,
                            .audio_ssrc = audio_ssrc_,
                            .video_ssrc = video_ssrc_,
                            .cname = cname_},
                           transport_->local_info());
  describe();
}

void PublishingPeer::restart() {
  if (stopped_ || failed_ || !transport_->renew_way()) return;
  const sdp::Setup setup = offer_.transport.setup;
  offer_.transport = transport_->local_info();
  offer_.transport.setup = setup;
  answered_ = false;
  early_candidates_.clear();
  describe();
}

void PublishingPeer::describe() {
  post([offer = ++offers_](PublishingPeer& self) {
    if (offer != self.offers_) return;
    static const std::uint64_t session = random_ssrc();
    self.observer_.on_local_description("offer",
                                        sdp::write_description(self.offer_, session, offer));
    if (!self.stopped_) self.transport_->gather();
  });
}

void PublishingPeer::set_remote_answer(const std::string& text) {
  if (stopped_ || failed_ || std::exchange(answered_, true)) return;
  sdp::Description answer;
  std::string fault;
  if (sdp::read_description(text, answer, fault)) fault = sdp::fault_of_answer(offer_, answer);
  if (!fault.empty()) {
    fail("the server's answer cannot be used: " + fault);
    return;
  }
  transport_->set_remote(answer, answer.transport.setup == sdp::Setup::kPassive);
  for (const std::string& candidate : std::exchange(early_candidates_, {})) {
    transport_->add_remote_candidate(candidate);
  }
  if (wanted_.has_video && !std::exchange(pictures_begun_, true)) begin_pictures(answer);
}

void PublishingPeer::begin_pictures(const sdp::Description& answer) {
  const sdp::Section* const section = sdp::find_section(answer, sdp::Kind::kVideo);
  if (section == nullptr) return;
  for (const sdp::Codec& codec : section->codecs) {
    const bool is_h264 = sdp::is_codec(codec, "H264");
    if (!is_h264 && !sdp::is_codec(codec, "VP8")) continue;
    const VideoCodec kind = is_h264 ? VideoCodec::kH264 : VideoCodec::kVp8;
    sender_.set_video(kind, static_cast<std::uint8_t>(codec.payload));
    auto encoder =
        std::make_shared<PictureEncoder>(kind, wanted_.fps,
                                         [weak = weak_from_this(), loop = settings_.loop](
                                             std::vector<std::uint8_t> frame, Micros stamp) {
                                           loop->post([weak, frame = std::move(frame), stamp] {
                                             const auto self = weak.lock();
                                             if (self && !self->stopped_)
                                               self->send_frame(frame, stamp);
                                           });
                                         });
    encoder->start();
    SARNET_LOG(kInfo, "relay: pictures are sent as " << (is_h264 ? "H.264" : "VP8"));
    const common::LockGuard lock(mutex_);
    encoder_ = std::move(encoder);
    return;
  }
}

void PublishingPeer::add_remote_candidate(unsigned, const std::string& candidate) {
  if (stopped_) return;
  if (answered_) {
    transport_->add_remote_candidate(candidate);
  } else {
    early_candidates_.push_back(candidate);
  }
}

void PublishingPeer::stop() {
  if (std::exchange(stopped_, true)) return;
  flowing_ = false;
  timer_.stop();
  {
    const common::LockGuard lock(mutex_);
    if (encoder_) encoder_->close();
    encoder_.reset();
  }
  // Released here, on the loop's thread; a thread with media may be the last to release the peer.
  if (transport_) transport_->stop();
  transport_.reset();
  const PublicationSender::Counters& counters = sender_.counters();
  SARNET_LOG(kDebug, "relay: sent " << counters.packets << " packets, " << counters.sent_again
                                    << " again, " << counters.not_there << " not there any more, "
                                    << counters.dropped << " dropped, " << counters.key_requests
                                    << " key frames requested");
}

void PublishingPeer::on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) {
  if (!wanted_.has_audio || !flowing_ || format.channels < 1) return;
  const auto frames = static_cast<std::int64_t>(samples.size()) / format.channels;
  opus_.push(format, samples, micros(audio_clock_.stamp(nanoseconds(steady_now()), frames)));
}

void PublishingPeer::on_picture(const PictureRef& picture) {
  if (!flowing_ || !picture) return;
  std::shared_ptr<PictureEncoder> encoder;
  {
    const common::LockGuard lock(mutex_);
    encoder = encoder_;
  }
  if (encoder) encoder->push(picture, micros(video_clock_.stamp(nanoseconds(steady_now()), 1)));
}

void PublishingPeer::on_caption(std::string_view text, bool is_final) {
  if (!wanted_.captions) return;
  post([message = encode_caption(text, is_final)](PublishingPeer& self) {
    self.transport_->send_text(message);
  });
}

void PublishingPeer::fail(const std::string& reason) {
  if (std::exchange(failed_, true)) return;
  post([reason](PublishingPeer& self) { self.observer_.on_peer_failed(reason); });
}

void PublishingPeer::on_local_candidate(const std::string& candidate) {
  observer_.on_local_candidate(0, candidate);
}

void PublishingPeer::on_transport_connected() {
  flowing_ = true;
  observer_.on_peer_connected();
}

void PublishingPeer::on_transport_failed(const std::string& reason) {
  if (!std::exchange(failed_, true)) observer_.on_peer_failed(reason);
}

void PublishingPeer::on_rtcp(std::span<const std::uint8_t> packet) {
  sender_.take_rtcp(packet, steady_now());
  adapt_encoder();
  schedule();
}

void PublishingPeer::adapt_encoder() {
  const common::LockGuard lock(mutex_);
  if (!encoder_) return;
  sender_.set_wanted_bitrate(encoder_->wanted_bitrate());
  encoder_->set_bitrate(sender_.bitrate());
  if (sender_.take_key_request()) encoder_->request_key_frame();
}

void PublishingPeer::send_frame(const std::vector<std::uint8_t>& frame, Micros stamp) {
  adapt_encoder();
  sender_.send_video(frame, stamp, steady_now());
  schedule();
}

void PublishingPeer::send_rtp(Bytes packet) {
  if (transport_) transport_->send_rtp(packet);
}

void PublishingPeer::send_rtcp(Bytes packet) {
  if (transport_) transport_->send_rtcp(packet);
}

void PublishingPeer::schedule() {
  if (!stopped_) timer_.arm(sender_.deadline());
}

}  // namespace sarnet::relay
