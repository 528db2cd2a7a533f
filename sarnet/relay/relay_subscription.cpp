#include "relay/relay_subscription.h"

#include <sarnet/sarnet.h>

#include <utility>

#include "core/log.h"

namespace sarnet::relay {
namespace {

// Layers of a stream that is published in several: by custom the smallest is a quarter of the
// largest, 320 pixels wide or less, and each rate is twice the one below it.
int layer_for_size(const MediaWishes& wishes) {
  if (wishes.max_width == 0) return 2;
  return wishes.max_width <= 320 ? 0 : wishes.max_width <= 640 ? 1 : 2;
}

int layer_for_rate(const MediaWishes& wishes) {
  if (wishes.max_framerate <= 0) return 2;
  return wishes.max_framerate <= 8 ? 0 : wishes.max_framerate <= 15 ? 1 : 2;
}

// Has the server begin the DTLS handshake. When we begin it, our first packet often comes before
// the server is ready for it, and goes out again only a second later.
std::string with_active_server(std::string sdp) {
  constexpr std::string_view kEither = "a=setup:actpass";
  constexpr std::string_view kActive = "a=setup:active";
  for (auto at = sdp.find(kEither); at != std::string::npos; at = sdp.find(kEither, at)) {
    sdp.replace(at, kEither.size(), kActive);
  }
  return sdp;
}

}  // namespace

json wishes_request(const std::vector<FeedMedium>& media, const MediaWishes& wishes,
                    const MediaWishes& before) {
  json streams = json::array();
  for (const FeedMedium& medium : media) {
    json stream = json::object();
    const bool is_video = medium.type == "video";
    if (medium.type == "audio" && wishes.audio != before.audio) stream["send"] = wishes.audio;
    if (is_video && wishes.video != before.video) stream["send"] = wishes.video;
    if (is_video && medium.simulcast) {
      if (layer_for_size(wishes) != layer_for_size(before)) {
        stream["substream"] = layer_for_size(wishes);
      }
      if (layer_for_rate(wishes) != layer_for_rate(before)) {
        stream["temporal"] = layer_for_rate(wishes);
      }
    }
    if (stream.empty()) continue;
    stream["mid"] = medium.mid;
    streams.push_back(std::move(stream));
  }
  if (streams.empty()) return json::object();
  return {{"request", "configure"}, {"streams", std::move(streams)}};
}

RelaySubscription::RelaySubscription(RoomAccess& access, std::string stream_id,
                                     std::shared_ptr<SubscriptionGate> gate,
                                     std::function<void()> over)
    : access_(access),
      stream_id_(std::move(stream_id)),
      gate_(std::move(gate)),
      over_(std::move(over)) {}

RelaySubscription::~RelaySubscription() { stop(); }

void RelaySubscription::start() {
  limit_ = MainLoop::Timer(*access_.loop, kPeerLimit, [this] {
    fail({SRN_SUBSCRIBER_TIMED_OUT, "The media connection for subscribing was not made in time"});
  });
  access_.client.attach(kRoomPlugin, [weak = weak_from_this(), &client = access_.client](
                                         const JanusReply& reply, std::uint64_t attached) {
    const auto self = weak.lock();
    if (!self || self->stopped_) {
      if (attached != 0) client.detach(attached);
    } else if (!reply.ok()) {
      self->fail(subscriber_failure("preparing to subscribe", reply));
    } else {
      self->handle_ = attached;
      self->join();
    }
  });
}

void RelaySubscription::join() {
  json body = access_.request("join");
  body["ptype"] = "subscriber";
  body["streams"] = json::array({{{"feed", stream_id_}}});
  access_.client.message(
      handle_, std::move(body), "", "",
      weakly(shared_from_this(), [](RelaySubscription& self, const JanusReply& reply) {
        if (self.stopped_) return;
        if (!reply.ok()) {
          self.fail(subscriber_failure("subscribing", reply));
        } else {
          self.take_offer(reply.data(), reply.sdp());
        }
      }));
}

void RelaySubscription::take_offer(const json& data, const std::string& sdp) {
  media_.clear();
  for (const json& each : member(data, "streams")) {
    media_.push_back({text_of(each, "mid"), text_of(each, "type"),
                      member(each, "simulcast").is_object() || flag_of(each, "simulcast")});
  }
  std::string error = "the server made no offer";
  if (!peer_ && !sdp.empty()) {
    peer_ = ReceivingPeer::create(access_.peer_settings(), gate_, *this, error);
  }
  if (!peer_) {
    fail({SRN_SUBSCRIBER_WEBRTC_ERROR, "Subscribing is not possible: " + error});
    return;
  }
  if (!sdp.empty()) peer_->set_remote_offer(with_active_server(sdp));
}

void RelaySubscription::on_local_description(const std::string& type, const std::string& sdp) {
  access_.client.message(
      handle_, {{"request", "start"}}, type, sdp,
      weakly(shared_from_this(), [](RelaySubscription& self, const JanusReply& reply) {
        if (self.stopped_) return;
        if (!reply.ok()) {
          self.fail(subscriber_failure("starting the subscription", reply));
          return;
        }
        self.started_ = true;
        self.send_wishes();
      }));
}

void RelaySubscription::on_local_candidate(unsigned mline, const std::string& candidate) {
  access_.client.trickle(handle_, mline, candidate);
}

void RelaySubscription::on_peer_connected() {
  limit_.stop();
  if (std::exchange(connected_, true)) return;
  if (auto* sink = gate_->sink()) sink->subscribed();
}

void RelaySubscription::on_peer_failed(const std::string& reason) {
  fail({SRN_SUBSCRIBER_WEBRTC_ERROR, "The media connection for subscribing failed: " + reason});
}

void RelaySubscription::prefer(const MediaWishes& wishes) {
  wishes_ = wishes;
  send_wishes();
}

void RelaySubscription::send_wishes() {
  if (!started_ || stopped_) return;
  json body = wishes_request(media_, wishes_, sent_wishes_);
  sent_wishes_ = wishes_;
  if (!body.empty()) access_.client.message(handle_, std::move(body), "", "", nullptr);
}

void RelaySubscription::notice(const json& message) {
  const std::string kind = text_of(message, "janus");
  if (kind == "trickle" && peer_) {
    const json& candidate = member(message, "candidate");
    peer_->add_remote_candidate(static_cast<unsigned>(number_of(candidate, "sdpMLineIndex")),
                                text_of(candidate, "candidate"));
  } else if (kind == "hangup") {
    const std::string reason = text_of(message, "reason");
    // Soon, as the stream may be ending with it.
    limit_ = MainLoop::Timer(*access_.loop, kHangupPatience, [this, reason] {
      fail({SRN_SUBSCRIBER_WEBRTC_ERROR, "The server ended the subscription: " + reason});
    });
  } else if (const std::string sdp = sdp_of(message); kind == "event" && peer_ && !sdp.empty()) {
    take_offer(plugin_data(message), sdp);
  }
}

void RelaySubscription::fail(const Failure& failure) {
  if (stopped_) return;
  SARNET_LOG(kWarn, "Subscribing to " << stream_id_ << " failed: " << failure.text);
  const auto self = shared_from_this();
  SubscriptionSink* const sink = gate_->sink();
  stop();
  withdraw();
  if (sink != nullptr) sink->subscription_failed(failure.code, failure.text);
  over_();
}

void RelaySubscription::stream_removed() {
  SubscriptionSink* const sink = gate_->sink();
  stop();
  withdraw();
  if (sink != nullptr) sink->subscription_ended();
}

void RelaySubscription::stop() {
  stopped_ = true;
  gate_->close();
  limit_.stop();
  if (peer_) peer_->stop();
}

void RelaySubscription::withdraw() {
  if (handle_ != 0) access_.client.detach(handle_);
}

}  // namespace sarnet::relay
