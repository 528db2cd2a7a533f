#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "base/engine.h"
#include "relay/media/codecs/video_decoder.h"
#include "relay/media/receive/frame_assembler.h"
#include "relay/media/receive/reorder_buffer.h"

namespace sarnet::relay {

// One stream of video packets as they come from the network, made into pictures, each shown as soon
// as it is whole. A missing packet is waited for as long as `patience` says, for it may be sent
// again; then frames are withheld until the next key frame, which is wanted: damaged ones would be
// worse. One thread at a time.
class VideoReceiver : private OrderedSink {
 public:
  // The sink must outlive the receiver.
  VideoReceiver(VideoCodec codec, Micros patience, MediaSink& sink);

  void take(const RtpPacket& packet, Micros now);
  void advance(Micros now);
  std::optional<Micros> deadline() const { return order_.deadline(); }
  std::span<ReorderBuffer::Missing> missing() { return order_.missing(); }
  std::span<const ReorderBuffer::Missing> missing() const { return order_.missing(); }
  std::int64_t on_wire(std::int64_t sequence) const { return order_.on_wire(sequence); }

  // Whether the sender should be asked for a key frame, since nothing can be shown without.
  bool wants_key_frame() const { return key_wanted_; }

  struct Counters {
    std::uint64_t pictures = 0;
    std::uint64_t undecodable = 0;
  };
  const Counters& counters() const { return counters_; }
  const ReorderBuffer::Counters& packets() const { return order_.counters(); }
  const FrameAssembler& frames() const { return frames_; }

 private:
  // A key frame that came while packets before it are missing.
  struct Shortcut {
    std::int64_t first = 0;
    std::uint32_t timestamp = 0;
    std::optional<std::int64_t> last;
  };

  void on_packet(std::int64_t sequence, const RtpPacket& packet) override;
  void on_lost(std::int64_t first, std::int64_t count) override;
  void look_for_shortcut(const RtpPacket& packet);
  void show(const FrameAssembler::Frame& frame);

  const VideoCodec codec_;
  MediaSink& sink_;
  ReorderBuffer order_;
  FrameAssembler frames_;
  VideoDecoder decoder_;
  TimestampUnwrapper timestamps_;
  std::optional<Shortcut> shortcut_;
  bool needs_key_ = true;    // nothing else can be decoded
  bool key_wanted_ = false;  // and none is on its way
  Counters counters_;
};

}  // namespace sarnet::relay
