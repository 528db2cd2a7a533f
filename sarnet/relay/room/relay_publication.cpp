#include "relay/room/relay_publication.h"

#include <sarnet/sarnet.h>

#include <utility>

#include "relay/room/unique_id.h"

namespace sarnet::relay {

void PublishedFeed::connect(std::shared_ptr<PublishedStream> peer) {
  const common::LockGuard lock(mutex_);
  peer_.swap(peer);
}

std::shared_ptr<PublishedStream> PublishedFeed::peer() const {
  const common::LockGuard lock(mutex_);
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
                                   std::shared_ptr<PublicationSink> sink, Over over)
    : RelayStream(access,
                  {"publishing", "the published stream", SRN_PUBLISHER_TIMED_OUT,
                   SRN_PUBLISHER_WEBRTC_ERROR, publisher_failure},
                  std::move(over)),
      request_(std::move(request)),
      feed_(std::move(feed)),
      sink_(std::move(sink)),
      id_(access.own.id) {}

RelayPublication::~RelayPublication() { stop(); }

void RelayPublication::start(std::uint64_t handle) {
  own_handle_ = handle == 0;
  if (own_handle_) id_ = unique_id();
  begin(handle, [this] { own_handle_ ? join() : negotiate(); });
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
  ask("entering the room to publish", std::move(body), [this](const JanusReply&) { negotiate(); },
      {.room = "joined"});
}

void RelayPublication::negotiate() {
  std::string error;
  peer_ = PublishingPeer::create(access_.peer_settings(),
                                 {request_.has_audio, request_.has_video, request_.video_fps,
                                  request_.stereo, request_.opus_dtx, request_.captions},
                                 *this, error);
  if (!peer_) {
    on_peer_failed(error);
    return;
  }
  feed_->connect(peer_);
  peer_->start();
}

void RelayPublication::on_local_description(const std::string& type, const std::string& sdp) {
  // The server takes a new offer for a stream that is published as a change of its settings.
  const char* request = std::exchange(negotiated_, true) ? "configure" : "publish";
  ask(
      "publishing",
      {{"request", request},
       {"audio", request_.has_audio},
       {"video", request_.has_video},
       {"data", request_.captions},
       {"display", format_display(display())}},
      [this, offer = ++offers_](const JanusReply& reply) {
        if (offer == offers_) peer_->set_remote_answer(reply.sdp());
      },
      {.room = "event", .sdp = true}, type, sdp);
}

void RelayPublication::connected() {
  if (!*access_.left) sink_->published({id_, request_.name, access_.own});
}

void RelayPublication::notice(const json& message) {
  if (text_of(message, "janus") == "hangup") negotiated_ = false;
  RelayStream::notice(message);
}

void RelayPublication::add_remote_candidate(unsigned mline, const std::string& candidate) {
  if (peer_) peer_->add_remote_candidate(mline, candidate);
}

void RelayPublication::report(const Failure& failure) {
  if (!*access_.left) sink_->publication_failed(failure.code, failure.text);
}

void RelayPublication::stop() {
  RelayStream::stop();
  feed_->connect(nullptr);
  if (peer_) peer_->stop();
}

void RelayPublication::withdraw() {
  if (own_handle_) {
    RelayStream::withdraw();
  } else if (negotiated_) {
    access_.client.message(handle(), {{"request", "unpublish"}}, "", "", nullptr);
  }
}

}  // namespace sarnet::relay
