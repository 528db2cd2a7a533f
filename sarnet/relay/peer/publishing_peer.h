#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/engine.h"
#include "common/mutex.h"
#include "relay/media/codecs/opus_coder.h"
#include "relay/media/sdp/description.h"
#include "relay/media/send/publication_sender.h"
#include "relay/media/send/stamp_clock.h"
#include "relay/media/transport/media_transport.h"
#include "relay/peer/deadline_timer.h"
#include "relay/peer/peer.h"
#include "relay/peer/picture_encoder.h"

namespace sarnet::relay {

struct PublishSettings {
  bool has_audio = true;
  bool has_video = true;
  int fps = 30;
  bool stereo = false;
  bool opus_dtx = false;  // silence is sent as a packet every 400 ms
  bool captions = false;  // opens the data channel that on_caption() writes to
};

// One published stream on its way to the server: Opus, VP8 (H.264 if that is what the answer takes)
// and captions. start(), set_remote_answer(), add_remote_candidate() and stop() are called on the
// main loop's thread; media may come on any thread, one at a time for each kind, from the moment
// that the object exists. What comes before the connection stands is dropped. Sound is coded on the
// thread that it comes on, pictures on one of their own, where the oldest is dropped when three
// wait.
class PublishingPeer : public PublishedStream,
                       public std::enable_shared_from_this<PublishingPeer>,
                       private TransportObserver,
                       private PublicationSender::Output {
 public:
  // Null, and `error` set, when it cannot be set up.
  static std::shared_ptr<PublishingPeer> create(const PeerSettings& peer,
                                                const PublishSettings& settings,
                                                PeerObserver& observer, std::string& error);
  PublishingPeer(const PeerSettings& peer, const PublishSettings& settings, PeerObserver& observer);
  ~PublishingPeer() override;
  PublishingPeer(const PublishingPeer&) = delete;
  PublishingPeer& operator=(const PublishingPeer&) = delete;

  // Makes the offer, for which the observer is told.
  void start();
  // Seeks another way for the connection that stands, by a new offer, for which the observer is
  // told. Nothing can be sent until it is answered.
  void restart();
  // After a change of the network: a break is noticed sooner.
  void check_way() { transport_->check_way(); }
  // To the last offer, once; one that does not fit the offer fails the peer.
  void set_remote_answer(const std::string& sdp);
  // May come before the answer. An empty text: no more candidates.
  void add_remote_candidate(unsigned mline, const std::string& candidate);
  // Frees the sockets at once; afterwards media are dropped and the observer is left alone. May be
  // repeated; must precede the last release.
  void stop();

  void on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) override;
  void on_picture(const PictureRef& picture) override;
  void on_caption(std::string_view text, bool is_final) override;
  void on_captured_audio(const AudioFormat&, std::span<const std::int16_t>) override {}

 private:
  void on_local_candidate(const std::string& candidate) override;
  void on_transport_connected() override;
  void on_transport_interrupted() override { observer_.on_peer_interrupted(); }
  void on_transport_failed(const std::string& reason) override;
  void on_rtp(std::span<const std::uint8_t>) override {}
  void on_rtcp(std::span<const std::uint8_t> packet) override;
  void on_text(std::string_view) override {}
  void send_rtp(Bytes packet) override;
  void send_rtcp(Bytes packet) override;

  // Runs a task on the loop while this lives and is not stopped.
  template <class Task>
  void post(Task task);
  void fail(const std::string& reason);
  void describe();
  void begin_pictures(const sdp::Description& answer);
  void send_frame(const std::vector<std::uint8_t>& frame, Micros stamp);
  void adapt_encoder();
  void schedule();

  const PeerSettings settings_;
  const PublishSettings wanted_;
  PeerObserver& observer_;
  const std::uint32_t audio_ssrc_;
  const std::uint32_t video_ssrc_;
  const std::string cname_;

  // The loop's thread.
  std::shared_ptr<MediaTransport> transport_;
  PublicationSender sender_;
  sdp::Description offer_;
  unsigned offers_ = 0;
  bool answered_ = false;
  bool pictures_begun_ = false;
  std::vector<std::string> early_candidates_;
  DeadlineTimer timer_;
  bool failed_ = false;
  bool stopped_ = false;

  // Media that cannot leave yet would be old when they can.
  std::atomic<bool> flowing_{false};
  // The sound's thread.
  OpusCoder opus_;
  StampClock audio_clock_{48000};
  // The pictures' thread.
  StampClock video_clock_;
  common::Mutex mutex_;
  std::shared_ptr<PictureEncoder> encoder_ GUARDED_BY(mutex_);  // once answered
};

}  // namespace sarnet::relay
