#include "relay/relay_subscription.h"

#include <sarnet/sarnet.h>

#include <utility>

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
                                     std::shared_ptr<SubscriptionGate> gate, Over over)
    : RelayStream(access,
                  {"subscribing", "the subscription", SRN_SUBSCRIBER_TIMED_OUT,
                   SRN_SUBSCRIBER_WEBRTC_ERROR, subscriber_failure},
                  std::move(over)),
      stream_id_(std::move(stream_id)),
      gate_(std::move(gate)) {}

RelaySubscription::~RelaySubscription() { stop(); }

void RelaySubscription::start() {
  begin(0, [this] { join(); });
}

void RelaySubscription::join() {
  json body = access_.request("join");
  body["ptype"] = "subscriber";
  body["streams"] = json::array({{{"feed", stream_id_}}});
  ask("subscribing", std::move(body),
      [this](const JanusReply& reply) { take_offer(reply.data(), reply.sdp()); });
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
    on_peer_failed(error);
    return;
  }
  if (!sdp.empty()) peer_->set_remote_offer(with_active_server(sdp));
}

void RelaySubscription::on_local_description(const std::string& type, const std::string& sdp) {
  ask(
      "starting the subscription", {{"request", "start"}},
      [this](const JanusReply&) {
        started_ = true;
        send_wishes();
      },
      type, sdp);
}

void RelaySubscription::connected() {
  if (auto* sink = gate_->sink()) sink->subscribed();
}

void RelaySubscription::prefer(const MediaWishes& wishes) {
  wishes_ = wishes;
  send_wishes();
}

void RelaySubscription::send_wishes() {
  if (!started_ || stopped()) return;
  json body = wishes_request(media_, wishes_, sent_wishes_);
  sent_wishes_ = wishes_;
  if (!body.empty()) access_.client.message(handle(), std::move(body), "", "", nullptr);
}

void RelaySubscription::notice(const json& message) {
  RelayStream::notice(message);
  const std::string sdp = sdp_of(message);
  if (peer_ && !sdp.empty() && text_of(message, "janus") == "event") {
    take_offer(plugin_data(message), sdp);
  }
}

void RelaySubscription::add_remote_candidate(unsigned mline, const std::string& candidate) {
  if (peer_) peer_->add_remote_candidate(mline, candidate);
}

void RelaySubscription::tell(const Failure& failure) {
  if (auto* sink = gate_->close()) sink->subscription_failed(failure.code, failure.text);
}

void RelaySubscription::stream_removed() {
  auto* const sink = gate_->close();
  stop();
  withdraw();
  if (sink != nullptr) sink->subscription_ended();
}

void RelaySubscription::stop() {
  RelayStream::stop();
  gate_->close();
  if (peer_) peer_->stop();
}

}  // namespace sarnet::relay
