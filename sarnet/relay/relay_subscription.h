#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/engine.h"
#include "relay/receiving_peer.h"
#include "relay/relay_failure.h"
#include "relay/room_access.h"

namespace sarnet::relay {

// Stands before the program's sink so that nothing more is passed on, from any thread, once the
// program has had enough.
class SubscriptionGate : public MediaSink {
 public:
  // `left` closes all gates of a session at once.
  SubscriptionGate(std::shared_ptr<SubscriptionSink> sink,
                   std::shared_ptr<const std::atomic<bool>> left)
      : sink_(std::move(sink)), left_(std::move(left)) {}

  void close() { closed_ = true; }
  // Null once closed.
  SubscriptionSink* sink() const { return closed_ || *left_ ? nullptr : sink_.get(); }
  bool leads_to(const SubscriptionSink* sink) const { return sink_.get() == sink; }

  void on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) override {
    if (auto* to = sink()) to->on_audio(format, samples);
  }
  void on_picture(const PictureRef& picture) override {
    if (auto* to = sink()) to->on_picture(picture);
  }
  void on_caption(std::string_view text, bool is_final) override {
    if (auto* to = sink()) to->on_caption(text, is_final);
  }

 private:
  const std::shared_ptr<SubscriptionSink> sink_;
  const std::shared_ptr<const std::atomic<bool>> left_;
  std::atomic<bool> closed_{false};
};

// One medium of a subscribed stream, as the server lists it.
struct FeedMedium {
  std::string mid;
  std::string type;  // "audio", "video" or "data"
  bool simulcast = false;
};

// One stream that the session receives, over a handle and a peer of its own. The main loop's thread
// alone; held by the session until it is over.
class RelaySubscription : public PeerObserver,
                          public std::enable_shared_from_this<RelaySubscription> {
 public:
  // `over` is called once it failed, after the sink was told.
  RelaySubscription(RoomAccess& access, std::string stream_id,
                    std::shared_ptr<SubscriptionGate> gate, std::function<void()> over);
  ~RelaySubscription() override;

  void start();
  void notice(const json& message);
  void prefer(const MediaWishes& wishes);
  // Ends all, and tells the sink that its stream is gone.
  void stream_removed();
  // Ends the media; takes some milliseconds. May be repeated.
  void stop();
  // Gives the handle back to the server.
  void withdraw();

  std::uint64_t handle() const { return handle_; }
  const std::string& stream_id() const { return stream_id_; }
  SubscriptionGate& gate() const { return *gate_; }

  void on_local_description(const std::string& type, const std::string& sdp) override;
  void on_local_candidate(unsigned mline, const std::string& candidate) override;
  void on_peer_connected() override;
  void on_peer_failed(const std::string& reason) override;

 private:
  void join();
  // Takes the server's list of what it sends, and its offer.
  void take_offer(const json& data, const std::string& sdp);
  void send_wishes();
  void fail(const Failure& failure);

  RoomAccess& access_;
  const std::string stream_id_;
  const std::shared_ptr<SubscriptionGate> gate_;
  const std::function<void()> over_;
  std::shared_ptr<ReceivingPeer> peer_;
  std::vector<FeedMedium> media_;
  MediaWishes wishes_;
  MediaWishes sent_wishes_;
  std::uint64_t handle_ = 0;
  bool started_ = false;
  bool connected_ = false;
  bool stopped_ = false;
  MainLoop::Timer limit_;
};

// What the server is asked to send of these media; empty when it is what it sends unasked.
json wishes_request(const std::vector<FeedMedium>& media, const MediaWishes& wishes,
                    const MediaWishes& before);

}  // namespace sarnet::relay
