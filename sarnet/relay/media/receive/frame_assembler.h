#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "relay/media/codecs/video_decoder.h"
#include "relay/media/packets/rtp_packet.h"
#include "relay/media/payloads/h264_payload.h"

namespace sarnet::relay {

// Makes whole coded frames of packets that come in order. One thread at a time; memory grows to the
// largest frame, kMaxFrame at most.
class FrameAssembler {
 public:
  static constexpr std::size_t kMaxFrame = std::size_t{8} * 1024 * 1024;

  struct Frame {
    Bytes data;  // valid until the next call
    bool is_key = false;
    std::uint32_t timestamp = 0;
  };

  explicit FrameAssembler(VideoCodec codec) : codec_(codec) {}

  // The frame that the packet completes, if it does. What is damaged breaks the frame that it
  // belongs to.
  std::optional<Frame> take(const RtpPacket& packet);
  // Packets are missing before the next one.
  void lose();

  // Frames that lack a packet or are damaged.
  std::uint64_t broken() const { return broken_; }
  // Key frames larger than kMaxPictureSide, which are not given out.
  std::uint64_t refused() const { return refused_; }

 private:
  bool append(const RtpPacket& packet);
  void break_frame();
  std::optional<Frame> finish();

  const VideoCodec codec_;
  H264Assembler h264_;
  std::vector<std::uint8_t> frame_;
  std::uint32_t timestamp_ = 0;
  // Nothing of a frame is here; its parts so far are; it lacks a part, and the rest is passed over.
  enum class State { kBetween, kInside, kBroken };
  State state_ = State::kBetween;
  // The next packet may not be the first of its frame.
  bool after_loss_ = false;
  std::uint64_t broken_ = 0;
  std::uint64_t refused_ = 0;
};

}  // namespace sarnet::relay
