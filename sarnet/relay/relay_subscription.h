#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "core/engine.h"
#include "relay/receiving_peer.h"
#include "relay/relay_stream.h"

namespace sarnet::relay {

// Stands before the program's sink so that nothing more is passed on, from any thread, once the
// program has had enough.
class SubscriptionGate : public MediaSink {
 public:
  // `left` closes all gates of a session at once.
  SubscriptionGate(std::shared_ptr<SubscriptionSink> sink,
                   std::shared_ptr<const std::atomic<bool>> left)
      : sink_(std::move(sink)), left_(std::move(left)) {}

  // Gives the sink if it was open.
  SubscriptionSink* close() {
    auto* const last = sink();
    closed_ = true;
    return last;
  }
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

// One stream that the session receives, over a handle of its own.
class RelaySubscription final : public RelayStream {
 public:
  RelaySubscription(RoomAccess& access, std::string stream_id,
                    std::shared_ptr<SubscriptionGate> gate, Over over);
  ~RelaySubscription() override;

  void start();
  void notice(const json& message) override;
  void prefer(const MediaWishes& wishes);
  // Ends all, and tells the sink that its stream is gone.
  void stream_removed();
  void stop() override;

  const std::string& stream_id() const { return stream_id_; }
  SubscriptionGate& gate() const { return *gate_; }

  void on_local_description(const std::string& type, const std::string& sdp) override;

 private:
  void join();
  // Takes the server's list of what it sends, and its offer.
  void take_offer(const json& data, const std::string& sdp);
  void send_wishes();
  void connected() override;
  void tell(const Failure& failure) override;
  void add_remote_candidate(unsigned mline, const std::string& candidate) override;

  const std::string stream_id_;
  const std::shared_ptr<SubscriptionGate> gate_;
  std::shared_ptr<ReceivingPeer> peer_;
  std::vector<FeedMedium> media_;
  MediaWishes wishes_;
  MediaWishes sent_wishes_;
  bool started_ = false;
};

// What the server is asked to send of these media; empty when it is what it sends unasked.
json wishes_request(const std::vector<FeedMedium>& media, const MediaWishes& wishes,
                    const MediaWishes& before);

}  // namespace sarnet::relay
