#pragma once

#include <opus/opus.h>

#include <cstdint>
#include <map>
#include <memory>
#include <queue>
#include <random>
#include <vector>

#include "relay/media/packets/rtcp.h"
#include "relay/media/receive/subscription_receiver.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

// A sender of real VP8 and Opus, the way to the receiver and back, and a clock: all of it
// simulated, so that seconds of a bad network pass in milliseconds and always in the same way.
namespace simulation {

using sarnet::relay::Bytes;
using sarnet::relay::Micros;
using sarnet::relay::SubscriptionReceiver;

struct Way {
  double loss = 0;        // share of packets, each way
  double duplicates = 0;  // share
  Micros delay{20'000};   // each way
  Micros jitter{0};       // more than that at most, so that packets overtake each other
};

class Call : private sarnet::MediaSink,
             private SubscriptionReceiver::Output,
             private sarnet::relay::RtcpHandler {
 public:
  explicit Call(const Way& way, unsigned seed = 1);
  ~Call() override;

  // Lets time pass: 30 pictures of 160x120 and 50 packets of sound a second.
  void run(Micros duration);
  // Begins the numbers of sequence anew; with another source, the SSRCs too.
  void leap(bool new_source);
  void set_way(const Way& way) { way_ = way; }

  Micros now() const { return now_; }
  int pictures_sent() const { return pictures_sent_; }
  // When each picture was shown.
  const std::vector<Micros>& shown() const { return shown_; }
  Micros longest_freeze(Micros since = Micros{0}) const;
  // Blocks of sound that the sender's were made into.
  int blocks() const { return blocks_; }
  int blocks_sent() const { return blocks_sent_; }
  int key_frames_asked() const { return key_frames_asked_; }
  const SubscriptionReceiver& receiver() const { return receiver_; }

 private:
  struct Flight {
    Micros at;
    std::uint64_t order;
    bool to_receiver;
    bool is_rtcp;
    std::vector<std::uint8_t> bytes;
    bool operator<(const Flight& other) const {
      return at != other.at ? at > other.at : order > other.order;
    }
  };
  struct Stream {
    std::uint8_t payload_type;
    std::uint32_t ssrc;
    std::uint16_t sequence;
    std::map<std::uint16_t, std::vector<std::uint8_t>> history;
  };

  void send_picture();
  void send_sound();
  void send(Stream& stream, std::uint32_t timestamp, bool marker, Bytes payload);
  void launch(bool to_receiver, bool is_rtcp, Bytes bytes);
  void land(const Flight& flight);

  void on_audio(const sarnet::AudioFormat& format, std::span<const std::int16_t> samples) override;
  void on_picture(const sarnet::PictureRef& picture) override;
  void on_caption(std::string_view, bool) override {}
  void send_rtcp(Bytes packet) override;
  void on_nack(std::uint32_t media, std::uint16_t sequence) override;
  void on_picture_loss(std::uint32_t media) override;

  Way way_;
  std::mt19937 random_;
  Micros now_{1'000'000};
  Micros next_picture_ = now_;
  Micros next_sound_ = now_;
  std::uint64_t flights_ = 0;
  std::priority_queue<Flight> way_queue_;
  Stream video_{96, 1000, 60000, {}};  // the numbers wrap soon
  Stream audio_{111, 2000, 65500, {}};
  bool wants_key_ = true;
  AVCodecContext* encoder_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* coded_ = nullptr;
  std::unique_ptr<OpusEncoder, void (*)(OpusEncoder*)> opus_;
  int pictures_sent_ = 0;
  int blocks_sent_ = 0;
  int key_frames_asked_ = 0;
  int blocks_ = 0;
  std::vector<Micros> shown_;
  SubscriptionReceiver receiver_;
};

}  // namespace simulation
