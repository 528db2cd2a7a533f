#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/engine.h"
#include "relay/peer/receiving_peer.h"
#include "relay/room/relay_stream.h"

namespace sarnet::relay {

// Forwards media to the program's sink until closed, from any thread.
class SwitchableSink : public MediaSink {
 public:
  // `left` closes all those of a session at once.
  SwitchableSink(std::shared_ptr<SubscriptionSink> sink,
                 std::shared_ptr<const std::atomic<bool>> left)
      : sink_(std::move(sink)), left_(std::move(left)) {}

  // Returns the sink if it was open.
  SubscriptionSink* close() {
    auto* const last = target();
    closed_ = true;
    return last;
  }
  // Null once closed.
  SubscriptionSink* target() const { return closed_ || *left_ ? nullptr : sink_.get(); }
  bool leads_to(const SubscriptionSink* sink) const { return sink_.get() == sink; }

  // `taker` is called on the streaming thread with each new width. Set it before any picture
  // arrives.
  void on_width(std::function<void(int)> taker) { width_taker_ = std::move(taker); }

  void on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) override {
    if (auto* to = target()) to->on_audio(format, samples);
  }
  void on_picture(const PictureRef& picture) override {
    if (std::exchange(width_, picture->width()) != picture->width()) width_taker_(width_);
    if (auto* to = target()) to->on_picture(picture);
  }
  void on_caption(std::string_view text, bool is_final) override {
    if (auto* to = target()) to->on_caption(text, is_final);
  }

 private:
  const std::shared_ptr<SubscriptionSink> sink_;
  const std::shared_ptr<const std::atomic<bool>> left_;
  std::atomic<bool> closed_{false};
  std::function<void(int)> width_taker_ = [](int) {};
  int width_ = 0;
};

// One medium of a subscribed stream, as the server lists it.
struct FeedMedium {
  std::string mid;
  std::string type;  // "audio", "video" or "data"
  bool simulcast = false;
};

// Of a stream that is published in several sizes, each with several rates: the widths seen so far,
// smallest layer first, 0 where none was.
using LayerWidths = std::array<int, 3>;

// The media and layers to request; the largest layer unless another is preferred.
struct StreamPreferences {
  bool audio = true;
  bool video = true;
  int size_layer = 2;
  int rate_layer = 2;
};
// The smallest layer that reaches the preference.
StreamPreferences stream_preferences(const MediaPreferences& preferences,
                                     const LayerWidths& widths);
// Of these media; empty when nothing changes.
json preferences_request(const std::vector<FeedMedium>& media, const StreamPreferences& now,
                         const StreamPreferences& before);

// One stream that the session receives, over a handle of its own.
class RelaySubscription final : public RelayStream {
 public:
  RelaySubscription(RoomAccess& access, std::string stream_id, std::shared_ptr<SwitchableSink> sink,
                    Over over);
  ~RelaySubscription() override;

  void start();
  void notice(const json& message) override;
  void prefer(const MediaPreferences& preferences);
  // Ends all, and notifies the sink that its stream is gone.
  void stream_removed();
  void stop() override;

  const std::string& stream_id() const { return stream_id_; }
  SwitchableSink& sink() const { return *sink_; }

  void on_local_description(const std::string& type, const std::string& sdp) override;

 private:
  void join();
  void restart() override;
  void check_way() override { peer_->check_way(); }
  // Handles the server's list of the media it sends, and its offer.
  void take_offer(const json& data, const std::string& sdp);
  void send_preferences();
  void look_at_losses();
  void saw_width(int width);
  void connected() override;
  void report(const Failure& failure) override;
  void add_remote_candidate(unsigned mline, const std::string& candidate) override;

  const std::string stream_id_;
  const std::shared_ptr<SwitchableSink> sink_;
  std::shared_ptr<ReceivingPeer> peer_;
  std::vector<FeedMedium> media_;
  MediaPreferences preferences_;
  StreamPreferences sent_preferences_;
  LayerWidths widths_{};
  std::size_t layer_ = 0;  // received now, of a stream that has several
  int open_offers_ = 0;    // of the server, not yet answered
  bool started_ = false;
  // Where far too little comes through, pictures are left out for a while, for the sound's sake.
  MainLoop::Timer losses_timer_;
  ReceivingPeer::Arrivals arrivals_;  // at the last look
  int bad_seconds_ = 0;
  int seconds_without_pictures_ = 0;  // still to come
  bool restarting_ = false;           // the next offer begins ICE anew
};

}  // namespace sarnet::relay
