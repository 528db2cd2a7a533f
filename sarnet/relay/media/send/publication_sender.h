#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "relay/media/codecs/video_decoder.h"
#include "relay/media/packets/rtcp.h"
#include "relay/media/packets/rtp_packet.h"
#include "relay/media/send/pacer.h"
#include "relay/media/send/packet_history.h"
#include "relay/media/send/send_rate.h"

namespace sarnet::relay {

// Everything between the coded sound and pictures of one publication and its packets: bytes and
// times in, RTP and RTCP out. Answers requests for lost packets, judges what the way takes, and
// spreads large frames. No thread and no clock of its own; one thread at a time, which comes back
// by deadline(). Allocates in the constructor alone.
class PublicationSender : private RtcpHandler {
 public:
  struct Settings {
    std::uint32_t audio_ssrc = 1;
    std::uint32_t video_ssrc = 2;
    std::string cname;
    std::uint8_t audio_payload = 111;
    std::uint8_t video_payload = 96;
    VideoCodec codec = VideoCodec::kVp8;
  };
  class Output {
   public:
    virtual ~Output() = default;
    virtual void send_rtp(Bytes packet) = 0;
    virtual void send_rtcp(Bytes packet) = 0;
  };

  // The output must outlive the sender. `wall_clock` is what 0 on the clock of all other times is,
  // as time since the Unix epoch; for the reports, by which sound and pictures are played in step.
  PublicationSender(Settings settings, Micros wall_clock, Output& output);

  // When the answer is known; before the first picture.
  void set_video(VideoCodec codec, std::uint8_t payload_type);

  // A packet of Opus that begins at `stamp`; `begins` after silence that was not sent.
  void send_audio(Bytes packet, Micros stamp, bool begins, Micros now);
  void send_video(Bytes frame, Micros stamp, Micros now);
  void take_rtcp(Bytes bytes, Micros now);
  void advance(Micros now);
  std::optional<Micros> deadline() const;

  // For the encoder.
  void set_wanted_bitrate(std::uint64_t bits_per_second) { rate_.set_wanted(bits_per_second); }
  std::uint64_t bitrate() const { return rate_.target(); }
  // Whether a key frame was asked for since the last call.
  bool take_key_request();

  struct Counters {
    std::uint64_t packets = 0;
    std::uint64_t sent_again = 0;
    std::uint64_t not_there = 0;  // asked for, but gone
    std::uint64_t dropped = 0;    // more waited than can be sent
    std::uint64_t key_requests = 0;
  };
  const Counters& counters() const { return counters_; }

 private:
  struct Stream {
    std::uint32_t ssrc = 0;
    std::uint8_t payload_type = 0;
    std::uint32_t clock_rate = 0;
    std::uint32_t offset = 0;  // of the timestamps
    std::uint16_t sequence = 0;
    std::uint32_t packets = 0;
    std::uint32_t octets = 0;
    PacketHistory history;

    std::uint32_t timestamp(Micros stamp) const;
  };

  void on_nack(std::uint32_t media, std::uint16_t sequence) override;
  void on_picture_loss(std::uint32_t media) override;
  void on_report_block(std::uint32_t sender, const ReportBlock& block) override;
  void on_bitrate_limit(std::uint64_t bits_per_second) override;

  void send(Stream& stream, std::uint32_t timestamp, bool marker, Bytes payload, bool paced);
  void flush();
  void report();

  Settings settings_;
  const Micros wall_clock_;
  Output& output_;
  Stream audio_;
  Stream video_;
  Pacer pacer_;
  SendRate rate_;
  RtcpWriter rtcp_;
  std::uint16_t picture_id_ = 0;
  bool key_requested_ = false;
  std::optional<Micros> key_taken_;
  Micros next_report_{0};
  Micros now_{0};
  Counters counters_;
};

}  // namespace sarnet::relay
