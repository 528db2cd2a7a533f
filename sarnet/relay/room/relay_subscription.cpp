#include "relay/room/relay_subscription.h"

#include <sarnet/sarnet.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/log.h"
#include "relay/signalling/wire_limits.h"

namespace sarnet::relay {
namespace {

// Each size is twice the one below it, and so is each rate; the smallest is usually 320 wide.
int expected_width(int layer, const LayerWidths& widths) {
  const auto of = [&](int each) { return widths.at(static_cast<std::size_t>(each)); };
  for (const int known : {layer, layer - 1, layer + 1, layer - 2, layer + 2}) {
    if (known < 0 || known > 2 || of(known) == 0) continue;
    return known <= layer ? of(known) << (layer - known) : of(known) >> (known - layer);
  }
  return 320 << layer;
}

// A link that loses so much of what comes, for so long, is too slow for pictures; how long they are
// left out then, and how many packets tell.
constexpr double kTooMuchLost = 0.4;
constexpr int kBadSeconds = 3;
constexpr int kSecondsWithoutPictures = 6;
constexpr std::uint64_t kTellingPackets = 20;

}  // namespace

StreamPreferences stream_preferences(const MediaPreferences& preferences,
                                     const LayerWidths& widths) {
  StreamPreferences stream{preferences.audio, preferences.video};
  const auto suffices = [&](int layer) {
    return expected_width(layer, widths) >= preferences.max_width;
  };
  if (preferences.max_width > 0) stream.size_layer = suffices(0) ? 0 : suffices(1) ? 1 : 2;
  if (preferences.max_framerate > 0) {
    stream.rate_layer = preferences.max_framerate <= 8    ? 0
                        : preferences.max_framerate <= 15 ? 1
                                                          : 2;
  }
  return stream;
}

json preferences_request(const std::vector<FeedMedium>& media, const StreamPreferences& now,
                         const StreamPreferences& before) {
  json streams = json::array();
  for (const FeedMedium& medium : media) {
    json stream = json::object();
    const bool is_video = medium.type == "video";
    if (medium.type == "audio" && now.audio != before.audio) stream["send"] = now.audio;
    if (is_video && now.video != before.video) stream["send"] = now.video;
    if (is_video && medium.simulcast) {
      if (now.size_layer != before.size_layer) stream["substream"] = now.size_layer;
      if (now.rate_layer != before.rate_layer) stream["temporal"] = now.rate_layer;
    }
    if (stream.empty()) continue;
    stream["mid"] = medium.mid;
    streams.push_back(std::move(stream));
  }
  if (streams.empty()) return json::object();
  return {{"request", "configure"}, {"streams", std::move(streams)}};
}

RelaySubscription::RelaySubscription(RoomAccess& access, std::string stream_id,
                                     std::shared_ptr<SwitchableSink> sink, Over over)
    : RelayStream(access,
                  {"subscribing", "the subscription", SRN_SUBSCRIBER_TIMED_OUT,
                   SRN_SUBSCRIBER_WEBRTC_ERROR, subscriber_failure},
                  std::move(over)),
      stream_id_(std::move(stream_id)),
      sink_(std::move(sink)) {}

RelaySubscription::~RelaySubscription() { stop(); }

void RelaySubscription::start() {
  begin(0, [this] { join(); });
}

void RelaySubscription::join() {
  json body = access_.request("join");
  body["ptype"] = "subscriber";
  body["streams"] = json::array({{{"feed", stream_id_}}});
  ask("subscribing", std::move(body),
      [this](const JanusReply& reply) { take_offer(reply.data(), reply.sdp()); },
      {.room = "attached", .sdp = true});
}

void RelaySubscription::restart() {
  restarting_ = true;
  ask("subscribing", {{"request", "configure"}, {"restart", true}},
      [this](const JanusReply& reply) { take_offer(reply.data(), reply.sdp()); },
      {.room = "event", .sdp = true});
}

void RelaySubscription::take_offer(const json& data, const std::string& sdp) {
  if (++open_offers_ > kMaxOffersAtOnce) {
    on_peer_failed("the server makes offers faster than they can be answered");
    return;
  }
  const json& media = list_of(data, "streams");
  if (!media.empty()) media_.clear();
  for (const json& each : media) {
    if (media_.size() == kMaxMedia) break;
    media_.push_back({text_id_of(each, "mid"), text_id_of(each, "type"),
                      member(each, "simulcast").is_object() || flag_of(each, "simulcast")});
  }
  std::string error;
  if (!peer_) {
    sink_->on_width([this, weak = weak_from_this(), loop = access_.loop](int width) {
      loop->post([this, weak, width] {
        if (const auto self = weak.lock()) saw_width(width);
      });
    });
    peer_ = ReceivingPeer::create(access_.peer_settings(), sink_, *this, error);
  }
  if (!peer_) {
    on_peer_failed(error);
    return;
  }
  if (std::exchange(restarting_, false)) peer_->restart();
  peer_->set_remote_offer(sdp);
}

void RelaySubscription::on_local_description(const std::string& type, const std::string& sdp) {
  --open_offers_;
  ask(
      "starting the subscription", {{"request", "start"}},
      [this](const JanusReply&) {
        started_ = true;
        send_preferences();
      },
      {.room = "event"}, type, sdp);
}

void RelaySubscription::connected() {
  losses_timer_ = MainLoop::Timer(
      *access_.loop, std::chrono::seconds(1), [this] { look_at_losses(); }, true);
  if (auto* sink = sink_->target()) sink->subscribed();
}

void RelaySubscription::look_at_losses() {
  const auto before = std::exchange(arrivals_, peer_->arrivals());
  const std::uint64_t lost = arrivals_.lost - before.lost;
  const std::uint64_t all = lost + arrivals_.received - before.received;
  const bool is_bad =
      all >= kTellingPackets && static_cast<double>(lost) > kTooMuchLost * static_cast<double>(all);
  if (seconds_without_pictures_ > 0) {
    bad_seconds_ = 0;
    if (--seconds_without_pictures_ == 0) send_preferences();
    return;
  }
  bad_seconds_ = is_bad ? bad_seconds_ + 1 : 0;
  const bool has_sound =
      preferences_.audio && std::ranges::find(media_, "audio", &FeedMedium::type) != media_.end();
  if (bad_seconds_ < kBadSeconds || !has_sound) return;
  SARNET_LOG(kInfo, "The link is too slow for pictures, which are left out for a while");
  seconds_without_pictures_ = kSecondsWithoutPictures;
  send_preferences();
}

void RelaySubscription::prefer(const MediaPreferences& preferences) {
  preferences_ = preferences;
  send_preferences();
}

void RelaySubscription::send_preferences() {
  if (!started_ || stopped()) return;
  StreamPreferences now = stream_preferences(preferences_, widths_);
  now.video = now.video && seconds_without_pictures_ == 0;
  json body = preferences_request(media_, now, std::exchange(sent_preferences_, now));
  if (!body.empty()) access_.client.message(handle(), std::move(body), "", "", nullptr);
}

void RelaySubscription::saw_width(int width) {
  widths_.at(layer_) = width;
  send_preferences();
}

void RelaySubscription::notice(const json& message) {
  RelayStream::notice(message);
  if (const json& layer = member(plugin_data(message), "substream"); layer.is_number_unsigned()) {
    layer_ = std::min(layer.get<std::size_t>(), widths_.size() - 1);
  }
  const std::string sdp = sdp_of(message);
  if (peer_ && !sdp.empty() && text_of(message, "janus") == "event") {
    if (const std::string fault = description_fault(sdp); !fault.empty()) {
      on_peer_failed("the server's offer cannot be used: " + fault);
    } else {
      take_offer(plugin_data(message), sdp);
    }
  }
}

void RelaySubscription::add_remote_candidate(unsigned mline, const std::string& candidate) {
  if (peer_) peer_->add_remote_candidate(mline, candidate);
}

void RelaySubscription::report(const Failure& failure) {
  if (auto* sink = sink_->close()) sink->subscription_failed(failure.code, failure.text);
}

void RelaySubscription::stream_removed() {
  auto* const sink = sink_->close();
  stop();
  withdraw();
  if (sink != nullptr) sink->subscription_ended();
}

void RelaySubscription::stop() {
  RelayStream::stop();
  losses_timer_.stop();
  sink_->close();
  if (peer_) peer_->stop();
}

}  // namespace sarnet::relay
