// What a server sends as media: RTP and RTCP, decrypted, and the coded sound and pictures in it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "relay/media/receive/subscription_receiver.h"

namespace {

using namespace sarnet::relay;

class Nobody : public sarnet::MediaSink, public SubscriptionReceiver::Output, public RtcpHandler {
 public:
  void on_audio(const sarnet::AudioFormat& format, std::span<const std::int16_t> samples) override {
    const auto channels = static_cast<std::size_t>(format.channels);
    if (samples.size() != 480 * channels) __builtin_trap();
  }
  void on_picture(const sarnet::PictureRef& picture) override {
    if (picture->width() > kMaxPictureSide || picture->height() > kMaxPictureSide) __builtin_trap();
  }
  void on_caption(std::string_view, bool) override {}
  // What we send can be read.
  void send_rtcp(Bytes packet) override {
    if (!parse_rtcp(packet, *this)) __builtin_trap();
  }
};

}  // namespace

// Records of two bytes of length, of which the highest bit tells RTCP from RTP and the next four
// how many units of 10 ms have passed, and the packet.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Format = SubscriptionReceiver::Format;
  Nobody nobody;
  SubscriptionReceiver receiver({}, nobody, nobody);
  receiver.set_formats({{.payload_type = 96, .kind = Format::Kind::kVp8, .answers_nack = true},
                        {.payload_type = 97, .kind = Format::Kind::kH264},
                        {.payload_type = 98, .kind = Format::Kind::kRetransmission, .repairs = 96},
                        {.payload_type = 111, .kind = Format::Kind::kOpus, .answers_nack = true}});
  Micros now{1'000'000};
  ByteReader records(Bytes(data, size));
  while (records.left() != 0) {
    const unsigned head = records.u16();
    const Bytes packet = records.take(std::min<std::size_t>(head & 0x7FFU, records.left()));
    now += Micros{(head >> 11 & 15U) * 10'000};
    if ((head & 0x8000U) != 0) {
      receiver.take_rtcp(packet, now);
    } else {
      receiver.take_rtp(packet, now);
    }
    if (const auto due = receiver.deadline(); due && *due <= now) receiver.advance(now);
  }
  return 0;
}
