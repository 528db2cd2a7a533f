#define GST_USE_UNSTABLE_API
#include "relay/peer/receiving_peer.h"

#include <gst/webrtc/webrtc.h>

#include <atomic>
#include <utility>

#include "relay/peer/rtcp_feedback.h"
#include "relay/peer/sdp_text.h"
#include "relay/peer/stream_decoder.h"
#include "relay/room/caption_text.h"

namespace sarnet::relay {

namespace {

// The server passes text on only to those that opened a channel of that name themselves.
constexpr const char* kChannel = "JanusDataChannel";

class PipelineReceiver final : public ReceivingPeer,
                               public std::enable_shared_from_this<PipelineReceiver> {
 public:
  explicit PipelineReceiver(std::shared_ptr<MediaSink> sink) : sink_(std::move(sink)) {}

  bool build(const PeerSettings& peer, PeerObserver& observer, std::string& error) {
    connection_ = PeerConnection::create(peer, observer, error);
    if (!connection_) {
      return false;
    }
    connection_->on_text([sink = sink_](std::string_view text) {
      if (const auto caption = decode_caption(text))
        sink->on_caption(caption->text, caption->is_final);
    });
    quicken_feedback(connection_->webrtc(), video_ssrc_);
    connect_weakly(connection_->webrtc(), "pad-added",
                   G_CALLBACK(+[](GstElement*, GstPad* pad, gpointer data) {
                     const auto self = lock_weak<PipelineReceiver>(data);
                     if (self && gst_pad_get_direction(pad) == GST_PAD_SRC) self->take_stream(pad);
                   }),
                   weak_from_this());
    connect_weakly(connection_->webrtc(), "on-new-transceiver",
                   G_CALLBACK(+[](GstElement*, GstWebRTCRTPTransceiver* transceiver, gpointer) {
                     g_object_set(transceiver, "do-nack", TRUE, nullptr);
                   }),
                   weak_from_this());
    connection_->play();
    return true;
  }

  void set_remote_offer(const std::string& sdp) override {
    if (connection_->stopped()) {
      return;
    }
    const bool wants_channel = offers_data_channel(sdp) && !std::exchange(has_channel_, true);
    connection_->answer(without_full_intra_requests(sdp), [weak = weak_from_this(), wants_channel] {
      const auto self = weak.lock();
      if (self && wants_channel) self->connection_->open_data_channel(kChannel);
    });
  }

  void add_remote_candidate(unsigned mline, const std::string& candidate) override {
    connection_->add_remote_candidate(mline, candidate);
  }

  void stop() override { connection_->stop(); }

 private:
  // On a thread of the media stack.
  void take_stream(GstPad* pad) {
    const StreamCaps caps = stream_caps(pad);
    if (caps.is_video) {
      *video_ssrc_ = caps.ssrc;
    }
    StreamDecoder::attach(connection_->pipeline(), pad, sink_);
  }

  const std::shared_ptr<MediaSink> sink_;
  std::shared_ptr<PeerConnection> connection_;
  const std::shared_ptr<std::atomic<std::uint32_t>> video_ssrc_ =
      std::make_shared<std::atomic<std::uint32_t>>(0);
  bool has_channel_ = false;
};

}  // namespace

std::shared_ptr<ReceivingPeer> ReceivingPeer::create(const PeerSettings& peer,
                                                     std::shared_ptr<MediaSink> sink,
                                                     PeerObserver& observer, std::string& error) {
  auto receiver = std::make_shared<PipelineReceiver>(std::move(sink));
  return receiver->build(peer, observer, error) ? receiver : nullptr;
}

}  // namespace sarnet::relay
