#define GST_USE_UNSTABLE_API
#include "relay/peer/receiving_peer.h"

#include <gst/webrtc/webrtc.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

#include "relay/peer/caption_text.h"
#include "relay/peer/rtcp_feedback.h"
#include "relay/peer/sdp_text.h"
#include "relay/peer/stream_decoder.h"

namespace sarnet::relay {

namespace {

// The server passes text on only to those that opened a channel of that name themselves.
constexpr const char* kChannel = "JanusDataChannel";

// How long sound waits for packets that were overtaken or lost. Nobody sends a lost one again in
// time, the decoder fills it in, and what waits behind it comes in a burst.
constexpr unsigned kSoundWaitMs = 40;

// The jitter buffers of one connection, by stream. Any thread.
class JitterBuffers {
 public:
  void add(std::uint32_t ssrc, GstElement* buffer) {
    const std::lock_guard lock(mutex_);
    buffers_[ssrc].reset(GST_ELEMENT(gst_object_ref(buffer)));
  }
  void set_wait(std::uint32_t ssrc, unsigned ms) {
    const std::lock_guard lock(mutex_);
    const auto found = buffers_.find(ssrc);
    if (found != buffers_.end()) g_object_set(found->second.get(), "latency", ms, nullptr);
  }

 private:
  std::mutex mutex_;
  std::map<std::uint32_t, ElementPtr> buffers_;
};

class PipelineReceiver final : public ReceivingPeer,
                               public std::enable_shared_from_this<PipelineReceiver> {
 public:
  explicit PipelineReceiver(std::shared_ptr<MediaSink> sink) : sink_(std::move(sink)) {}

  bool build(const PeerSettings& peer, PeerObserver& observer, std::string& error) {
    sound_wait_ms_ = std::min(kSoundWaitMs, peer.jitter_ms);
    connection_ = PeerConnection::create(peer, observer, error);
    if (!connection_) return false;
    connection_->on_text([sink = sink_](std::string_view text) {
      if (const auto caption = decode_caption(text))
        sink->on_caption(caption->text, caption->is_final);
    });
    quicken_feedback(connection_->webrtc(), video_ssrc_);
    if (const ElementPtr bin(gst_bin_get_by_name(GST_BIN(connection_->webrtc()), "rtpbin")); bin) {
      connect_weakly(
          bin.get(), "new-jitterbuffer",
          G_CALLBACK(+[](GstElement*, GstElement* buffer, guint, guint ssrc, gpointer data) {
            const auto self = lock_weak<PipelineReceiver>(data);
            if (self) self->jitter_buffers_.add(ssrc, buffer);
          }),
          weak_from_this());
    }
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
    if (connection_->stopped()) return;
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
    } else {
      jitter_buffers_.set_wait(caps.ssrc, sound_wait_ms_);
    }
    StreamDecoder::attach(connection_->pipeline(), pad, sink_);
  }

  const std::shared_ptr<MediaSink> sink_;
  std::shared_ptr<PeerConnection> connection_;
  const std::shared_ptr<std::atomic<std::uint32_t>> video_ssrc_ =
      std::make_shared<std::atomic<std::uint32_t>>(0);
  bool has_channel_ = false;
  unsigned sound_wait_ms_ = kSoundWaitMs;
  JitterBuffers jitter_buffers_;
};

}  // namespace

std::shared_ptr<ReceivingPeer> ReceivingPeer::create(const PeerSettings& peer,
                                                     std::shared_ptr<MediaSink> sink,
                                                     PeerObserver& observer, std::string& error) {
  auto receiver = std::make_shared<PipelineReceiver>(std::move(sink));
  return receiver->build(peer, observer, error) ? receiver : nullptr;
}

}  // namespace sarnet::relay
