#include "relay/peer/publishing_peer.h"

#include <atomic>
#include <utility>

#include "relay/peer/audio_sender.h"
#include "relay/peer/caption_text.h"
#include "relay/peer/sdp_text.h"
#include "relay/peer/video_sender.h"

namespace sarnet::relay {

namespace {

class PipelinePublisher final : public PublishingPeer, private PeerObserver {
 public:
  PipelinePublisher(PublishSettings settings, PeerObserver& observer)
      : settings_(settings), observer_(observer) {}

  bool build(const PeerSettings& peer, std::string& error) {
    connection_ = PeerConnection::create(peer, *this, error);
    if (!connection_) return false;
    if (settings_.has_audio) {
      audio_ = AudioSender::create(*connection_, settings_.stereo, settings_.opus_dtx);
    }
    if (settings_.has_video) {
      video_ = VideoSender::create(*connection_, settings_.fps, settings_.has_audio ? 1 : 0);
    }
    if ((settings_.has_audio && !audio_) || (settings_.has_video && !video_)) {
      error = "the media stack cannot send what is to be published";
      connection_->stop();
      return false;
    }
    return true;
  }

  void start() override {
    connection_->make_ready();
    if (settings_.captions) connection_->open_data_channel("captions");
    connection_->play();
    connection_->create_offer();
  }

  void set_remote_answer(const std::string& sdp) override {
    if (connection_->stopped()) return;
    const std::string codec = video_ ? first_video_codec(sdp) : "";
    if (!codec.empty()) video_->use_codec(*connection_, codec);
    connection_->set_remote_answer(without_full_intra_requests(sdp));
  }

  void add_remote_candidate(unsigned mline, const std::string& candidate) override {
    connection_->add_remote_candidate(mline, candidate);
  }

  void stop() override {
    flowing_ = false;
    connection_->stop();
  }

  void request_key_frame() override {
    if (video_) video_->request_key_frame();
  }

  void on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) override {
    if (audio_ && flowing_) audio_->push(format, samples, connection_->running_time_ns());
  }
  void on_picture(const PictureRef& picture) override {
    if (video_ && flowing_) video_->push(picture, connection_->running_time_ns());
  }
  void on_caption(std::string_view text, bool is_final) override {
    if (settings_.captions) connection_->send_text(encode_caption(text, is_final));
  }
  void on_captured_audio(const AudioFormat&, std::span<const std::int16_t>) override {}

 private:
  void on_local_description(const std::string& type, const std::string& sdp) override {
    observer_.on_local_description(type, sdp);
  }
  void on_local_candidate(unsigned mline, const std::string& candidate) override {
    observer_.on_local_candidate(mline, candidate);
  }
  void on_peer_connected() override {
    flowing_ = true;
    observer_.on_peer_connected();
  }
  void on_peer_failed(const std::string& reason) override { observer_.on_peer_failed(reason); }

  const PublishSettings settings_;
  PeerObserver& observer_;
  std::shared_ptr<PeerConnection> connection_;
  std::unique_ptr<AudioSender> audio_;
  std::unique_ptr<VideoSender> video_;
  // Media that cannot leave yet would wait in the encoders and be old when they can.
  std::atomic<bool> flowing_{false};
};

}  // namespace

std::shared_ptr<PublishingPeer> PublishingPeer::create(const PeerSettings& peer,
                                                       const PublishSettings& settings,
                                                       PeerObserver& observer, std::string& error) {
  auto publisher = std::make_shared<PipelinePublisher>(settings, observer);
  return publisher->build(peer, error) ? publisher : nullptr;
}

}  // namespace sarnet::relay
