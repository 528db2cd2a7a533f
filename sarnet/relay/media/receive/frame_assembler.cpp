#include "relay/media/receive/frame_assembler.h"

#include "relay/media/payloads/vp8_payload.h"

namespace sarnet::relay {

std::optional<FrameAssembler::Frame> FrameAssembler::take(const RtpPacket& packet) {
  if (packet.payload.empty()) return std::nullopt;  // only fills the way
  if (state_ != State::kBetween && packet.timestamp != timestamp_) {
    // The last one lacks its mark: it had an end all the same if nothing was lost.
    break_frame();
    state_ = State::kBetween;
  }
  if (!append(packet)) break_frame();
  timestamp_ = packet.timestamp;
  if (!packet.marker) return std::nullopt;
  const bool whole = state_ == State::kInside && !(codec_ == VideoCodec::kH264 && h264_.is_open());
  if (!whole) break_frame();
  state_ = State::kBetween;
  after_loss_ = false;
  return whole ? finish() : std::nullopt;
}

bool FrameAssembler::append(const RtpPacket& packet) {
  Bytes data = packet.payload;
  bool begins = state_ == State::kBetween && !after_loss_;
  if (codec_ == VideoCodec::kVp8) {
    const auto payload = parse_vp8_payload(packet.payload);
    if (!payload) return false;
    data = payload->data;
    begins = payload->begins_frame;
  } else {
    begins |= begins_h264_key_frame(packet.payload);
  }
  if (state_ == State::kBetween) {
    if (!begins) return false;
    frame_.clear();
    h264_.reset();
    state_ = State::kInside;
  }
  if (state_ == State::kBroken || frame_.size() + data.size() > kMaxFrame) return false;
  if (codec_ == VideoCodec::kH264) return h264_.append(data, frame_);
  frame_.insert(frame_.end(), data.begin(), data.end());
  return true;
}

void FrameAssembler::lose() {
  if (state_ == State::kInside) break_frame();
  after_loss_ = true;
}

void FrameAssembler::break_frame() {
  if (state_ != State::kBroken) ++broken_;
  state_ = State::kBroken;
}

std::optional<FrameAssembler::Frame> FrameAssembler::finish() {
  Frame frame{frame_, h264_.is_key(), timestamp_};
  if (codec_ == VideoCodec::kH264) return frame;
  const auto header = parse_vp8_frame(frame_);
  if (!header) {
    ++broken_;
    return std::nullopt;
  }
  frame.is_key = header->is_key;
  if (header->width > kMaxPictureSide || header->height > kMaxPictureSide) {
    ++refused_;
    return std::nullopt;
  }
  return frame;
}

}  // namespace sarnet::relay
