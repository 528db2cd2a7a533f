#include "relay/media/receive/video_receiver.h"

#include "relay/media/payloads/vp8_payload.h"

namespace sarnet::relay {
namespace {

constexpr std::int64_t kTicksPerMs = 90;  // of the clock of all video

bool begins_key_frame(VideoCodec codec, Bytes payload) {
  if (codec == VideoCodec::kH264) return begins_h264_key_frame(payload);
  const auto part = parse_vp8_payload(payload);
  return part && part->begins_frame && (part->data.front() & 1U) == 0;
}

}  // namespace

VideoReceiver::VideoReceiver(VideoCodec codec, Micros patience, MediaSink& sink)
    : codec_(codec),
      sink_(sink),
      // Two large key frames.
      order_({.patience = patience, .capacity = 1024}, *this),
      frames_(codec) {
  decoder_.open(codec);
}

void VideoReceiver::take(const RtpPacket& packet, Micros now) {
  if (order_.insert(packet, now) == ReorderBuffer::Outcome::kHeld) look_for_shortcut(packet);
}

void VideoReceiver::advance(Micros now) { order_.advance(now); }

void VideoReceiver::look_for_shortcut(const RtpPacket& packet) {
  const std::int64_t sequence = order_.unwrap(packet.sequence);
  if (begins_key_frame(codec_, packet.payload)) {
    shortcut_ = Shortcut{sequence, packet.timestamp, std::nullopt};
  }
  if (!shortcut_ || shortcut_->timestamp != packet.timestamp) return;
  if (packet.marker && sequence >= shortcut_->first) shortcut_->last = sequence;
  if (shortcut_->last && order_.holds(shortcut_->first, *shortcut_->last)) {
    // What is missing before it is not needed any more.
    order_.skip_to(shortcut_->first);
    shortcut_.reset();
  }
}

void VideoReceiver::on_packet(std::int64_t, const RtpPacket& packet) {
  const std::uint64_t spoilt = frames_.broken() + frames_.refused();
  const auto frame = frames_.take(packet);
  if (frames_.broken() + frames_.refused() != spoilt) needs_key_ = key_wanted_ = true;
  if (frame) show(*frame);
}

void VideoReceiver::on_lost(std::int64_t, std::int64_t) {
  frames_.lose();
  needs_key_ = key_wanted_ = true;
}

void VideoReceiver::show(const FrameAssembler::Frame& frame) {
  if (needs_key_ && !frame.is_key) {
    key_wanted_ = true;
    return;
  }
  PictureRef picture;
  const VideoDecoder::Outcome outcome = decoder_.decode(frame.data, picture);
  if (outcome == VideoDecoder::Outcome::kDamaged) {
    ++counters_.undecodable;
    needs_key_ = key_wanted_ = true;
    return;
  }
  needs_key_ = key_wanted_ = false;
  if (!picture) return;
  picture->timestamp_ms = timestamps_.unwrap(frame.timestamp) / kTicksPerMs;
  ++counters_.pictures;
  sink_.on_picture(picture);
}

}  // namespace sarnet::relay
