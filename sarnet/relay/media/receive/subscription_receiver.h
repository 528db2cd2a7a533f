#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/engine.h"
#include "relay/media/packets/rtcp.h"
#include "relay/media/packets/rtp_packet.h"
#include "relay/media/receive/audio_receiver.h"
#include "relay/media/receive/reception.h"
#include "relay/media/receive/video_receiver.h"

namespace sarnet::relay {

// Everything between the decrypted packets of one subscription and its sound and pictures: bytes
// and times in, media and RTCP out. No thread and no clock of its own; whoever drives it says what
// time it is, calls on one thread at a time, and comes back by deadline(). What is hostile or not
// understood is counted and passed over.
class SubscriptionReceiver : private RtcpHandler {
 public:
  // What a payload type stands for.
  struct Format {
    enum class Kind { kOpus, kVp8, kH264, kRetransmission };
    std::uint8_t payload_type = 0;
    Kind kind = Kind::kOpus;
    int channels = 0;           // of sound, 0: as the packets are
    std::uint8_t repairs = 0;   // of retransmissions: the payload type that they repeat
    bool answers_nack = false;  // the sender sends missing packets again
  };
  struct Settings {
    std::uint32_t own_ssrc = 1;     // of our reports
    Micros audio_patience{40'000};  // how long a missing packet is waited for
    Micros video_patience{300'000};
  };
  // What packets are to be sent, encrypted, to the sender of the media; borrowed.
  class Output {
   public:
    virtual ~Output() = default;
    virtual void send_rtcp(Bytes packet) = 0;
  };

  // Sink and output must outlive the receiver.
  SubscriptionReceiver(const Settings& settings, MediaSink& sink, Output& output);

  // What was negotiated; again after each negotiation. A stream whose codec changes begins anew.
  void set_formats(std::vector<Format> formats) { formats_ = std::move(formats); }

  void take_rtp(Bytes bytes, Micros now);
  void take_rtcp(Bytes bytes, Micros now);
  void advance(Micros now);
  std::optional<Micros> deadline() const;

  struct Counters {
    std::uint64_t malformed = 0;  // neither RTP nor RTCP
    std::uint64_t unknown = 0;    // of payload types that were not negotiated
    std::uint64_t asked_again = 0;
    std::uint64_t key_frames_asked = 0;
    std::uint64_t retransmissions = 0;
  };
  const Counters& counters() const { return counters_; }
  // Null before the first packet.
  const VideoReceiver* video() const { return video_ ? &*video_ : nullptr; }
  const AudioReceiver* audio() const { return audio_ ? &*audio_ : nullptr; }

 private:
  void on_sender_report(std::uint32_t sender, const SenderInfo& info) override;

  const Format* find(std::uint8_t payload_type) const;
  void take_media(const RtpPacket& packet, const Format& format, Micros now);
  void take_retransmission(RtpPacket packet, const Format& format, Micros now);
  void give_feedback(Micros now);
  // The missing packets that are to be asked for now.
  template <class Receiver>
  void collect(Receiver& receiver, Micros now, unsigned most);
  void report(Micros now);
  void send(const Reception& about, Micros now, bool wants_key);

  const Settings settings_;
  MediaSink& sink_;
  Output& output_;
  std::vector<Format> formats_;
  std::optional<AudioReceiver> audio_;
  std::optional<VideoReceiver> video_;
  VideoCodec codec_ = VideoCodec::kVp8;
  bool audio_nack_ = false;
  bool video_nack_ = false;
  Reception audio_reception_{48000};
  Reception video_reception_{90000};
  Micros next_report_{0};
  std::optional<Micros> key_asked_;
  std::vector<std::int64_t> wanted_;
  RtcpWriter rtcp_;
  Micros now_{0};  // of the packet that is being read
  Counters counters_;
};

}  // namespace sarnet::relay
