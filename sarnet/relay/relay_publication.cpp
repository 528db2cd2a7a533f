#include "relay/relay_publication.h"

#include <sarnet/sarnet.h>

#include <utility>

#include "core/log.h"
#include "relay/unique_id.h"

namespace sarnet::relay {

void PublishedFeed::connect(std::shared_ptr<PublishedStream> peer) {
  const std::lock_guard lock(mutex_);
  peer_.swap(peer);
}

std::shared_ptr<PublishedStream> PublishedFeed::peer() const {
  const std::lock_guard lock(mutex_);
  return peer_;
}

void PublishedFeed::on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) {
  if (const auto to = peer()) to->on_audio(format, samples);
}

void PublishedFeed::on_captured_audio(const AudioFormat& format,
                                      std::span<const std::int16_t> samples) {
  if (const auto to = peer()) to->on_captured_audio(format, samples);
}

void PublishedFeed::on_picture(const PictureRef& picture) {
  if (const auto to = peer()) to->on_picture(picture);
}

void PublishedFeed::on_caption(std::string_view text, bool is_final) {
  if (const auto to = peer()) to->on_caption(text, is_final);
}

RelayPublication::RelayPublication(RoomAccess& access, PublishRequest request,
                                   std::shared_ptr<PublishedFeed> feed,
                                   std::shared_ptr<PublicationSink> sink,
                                   std::function<void()> over)
    : access_(access),
      request_(std::move(request)),
      feed_(std::move(feed)),
      sink_(std::move(sink)),
      over_(std::move(over)),
      id_(access.own.id) {}

RelayPublication::~RelayPublication() { stop(); }

void RelayPublication::start(std::uint64_t handle) {
  limit_ = MainLoop::Timer(*access_.loop, kPeerLimit, [this] {
    fail({SRN_PUBLISHER_TIMED_OUT, "The media connection for publishing was not made in time"});
  });
  handle_ = handle;
  if (handle_ != 0) {
    negotiate();
    return;
  }
  own_handle_ = true;
  id_ = unique_id();
  access_.client.attach(kRoomPlugin, [weak = weak_from_this(), &client = access_.client](
                                         const JanusReply& reply, std::uint64_t attached) {
    const auto self = weak.lock();
    if (!self || self->stopped_) {
      if (attached != 0) client.detach(attached);
    } else if (!reply.ok()) {
      self->fail(publisher_failure("preparing to publish", reply));
    } else {
      self->handle_ = attached;
      self->join();
    }
  });
}

Display RelayPublication::display() const {
  return {access_.own.data, access_.own.created_ms, request_.name,
          own_handle_ ? access_.own.id : ""};
}

void RelayPublication::join() {
  json body = access_.request("join");
  body["ptype"] = "publisher";
  body["id"] = id_;
  body["display"] = format_display(display());
  access_.client.message(
      handle_, std::move(body), "", "",
      weakly(shared_from_this(), [](RelayPublication& self, const JanusReply& reply) {
        if (reply.ok()) {
          self.negotiate();
        } else {
          self.fail(publisher_failure("entering the room to publish", reply));
        }
      }));
}

void RelayPublication::negotiate() {
  if (stopped_) return;
  std::string error;
  peer_ = PublishingPeer::create(access_.peer_settings(),
                                 {request_.has_audio, request_.has_video, request_.video_fps,
                                  request_.stereo, request_.opus_dtx, request_.captions},
                                 *this, error);
  if (!peer_) {
    fail({SRN_PUBLISHER_WEBRTC_ERROR, "Publishing is not possible: " + error});
    return;
  }
  feed_->connect(peer_);
  peer_->start();
}

void RelayPublication::on_local_description(const std::string& type, const std::string& sdp) {
  json body{{"request", "publish"},
            {"audio", request_.has_audio},
            {"video", request_.has_video},
            {"data", request_.captions},
            {"display", format_display(display())}};
  negotiated_ = true;
  access_.client.message(
      handle_, std::move(body), type, sdp,
      weakly(shared_from_this(), [](RelayPublication& self, const JanusReply& reply) {
        if (self.stopped_) return;
        if (!reply.ok()) {
          self.fail(publisher_failure("publishing", reply));
        } else if (!reply.sdp().empty()) {
          self.peer_->set_remote_answer(reply.sdp());
        }
      }));
}

void RelayPublication::on_local_candidate(unsigned mline, const std::string& candidate) {
  access_.client.trickle(handle_, mline, candidate);
}

void RelayPublication::on_peer_connected() {
  limit_.stop();
  if (std::exchange(published_, true) || *access_.left) return;
  sink_->published({id_, request_.name, access_.own});
}

void RelayPublication::on_peer_failed(const std::string& reason) {
  fail({SRN_PUBLISHER_WEBRTC_ERROR, "The media connection for publishing failed: " + reason});
}

void RelayPublication::notice(const json& message) {
  const std::string kind = text_of(message, "janus");
  if (kind == "trickle" && peer_) {
    const json& candidate = member(message, "candidate");
    peer_->add_remote_candidate(static_cast<unsigned>(number_of(candidate, "sdpMLineIndex")),
                                text_of(candidate, "candidate"));
  } else if (kind == "hangup") {
    const std::string reason = text_of(message, "reason");
    negotiated_ = false;
    // Soon, as the session may be ending with it.
    limit_ = MainLoop::Timer(*access_.loop, kHangupPatience, [this, reason] {
      fail({SRN_PUBLISHER_WEBRTC_ERROR, "The server ended the published stream: " + reason});
    });
  }
}

void RelayPublication::fail(const Failure& failure) {
  if (stopped_) return;
  SARNET_LOG(kWarn, "Publishing failed: " << failure.text);
  const auto self = shared_from_this();
  stop();
  withdraw();
  if (!*access_.left) sink_->publication_failed(failure.code, failure.text);
  over_();
}

void RelayPublication::stop() {
  stopped_ = true;
  limit_.stop();
  feed_->connect(nullptr);
  if (peer_) peer_->stop();
}

void RelayPublication::withdraw() {
  if (own_handle_) {
    if (handle_ != 0) access_.client.detach(handle_);
  } else if (negotiated_) {
    access_.client.message(handle_, {{"request", "unpublish"}}, "", "", nullptr);
  }
}

}  // namespace sarnet::relay
