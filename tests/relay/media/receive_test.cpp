// From packets to sound and pictures, over a simulated network.
#include <gtest/gtest.h>

#include "relay/media/payloads/h264_payload.h"
#include "relay/media/payloads/vp8_payload.h"
#include "relay/media/receive/frame_assembler.h"
#include "relay/media/simulated_sender.h"

namespace sarnet::relay {
namespace {

using namespace std::chrono_literals;
using simulation::Call;
using simulation::Way;
using Packet = std::vector<std::uint8_t>;

TEST(Receiving, StandsABadNetwork) {
  struct Row {
    const char* name;
    Way way;
    double pictures;  // share of those sent that is shown at least
    Micros freeze;    // the longest
    double sound;     // share of blocks at least
  };
  for (const Row& row :
       {Row{"a good one", {}, 1, 50ms, 1},
        Row{"out of order", {.duplicates = 0.05, .jitter = 30ms}, 1, 100ms, 1},
        Row{"1 % lost", {.loss = 0.01}, 1, 150ms, 1}, Row{"3 % lost", {.loss = 0.03}, 1, 150ms, 1},
        Row{"10 % lost", {.loss = 0.10}, 0.9, 500ms, 0.99},
        Row{"20 % lost, late", {.loss = 0.20, .delay = 60ms, .jitter = 40ms}, 0.3, 2000ms, 0.9}}) {
    SCOPED_TRACE(row.name);
    Call call(row.way);
    call.run(20s);
    call.set_way({});
    call.run(1s);
    EXPECT_GE(static_cast<double>(call.shown().size()), row.pictures * (call.pictures_sent() - 2));
    EXPECT_LE(call.longest_freeze().count(), row.freeze.count());
    EXPECT_GE(call.blocks(), row.sound * (call.blocks_sent() - 6));
    EXPECT_LE(call.blocks(), call.blocks_sent());
    EXPECT_EQ(call.receiver().counters().malformed + call.receiver().counters().unknown, 0U);
  }
}

TEST(Receiving, GoesOnAfterALeapAndAfterABreak) {
  for (const bool new_source : {false, true}) {
    Call call({});
    call.run(3s);
    call.leap(new_source);
    const Micros leapt = call.now();
    const int blocks = call.blocks();
    call.run(2s);
    EXPECT_LE(call.longest_freeze(leapt).count(), Micros(500ms).count());
    EXPECT_GE(call.blocks() - blocks, 195);
    call.set_way({.loss = 1});
    call.run(5s);
    call.set_way({});
    const std::size_t shown = call.shown().size();
    const Micros back = call.now();
    call.run(2s);
    ASSERT_GT(call.shown().size(), shown);
    EXPECT_LE((call.shown()[shown] - back).count(), Micros(500ms).count());
  }
}

TEST(Receiving, AsksForKeyFramesNoMoreThanFourTimesASecond) {
  Call call({});
  call.run(1s);
  call.set_way({.loss = 0.6});
  const int before = call.key_frames_asked();
  call.run(5s);
  EXPECT_LE(call.key_frames_asked() - before, 21);
}

RtpPacket rtp(const Packet& payload, std::uint32_t timestamp, bool marker) {
  RtpPacket packet;
  packet.timestamp = timestamp;
  packet.marker = marker;
  packet.payload = payload;
  return packet;
}

// A VP8 key frame of that size, with no picture in it.
Packet vp8_key(int width, int height) {
  const auto low = [](int side) { return static_cast<std::uint8_t>(side); };
  const auto high = [](int side) { return static_cast<std::uint8_t>(side >> 8); };
  return {0x10, 0, 0, 0, 0x9D, 0x01, 0x2A, low(width), high(width), low(height), high(height), 0};
}

TEST(FrameAssembler, RefusesWhatIsTooLarge) {
  FrameAssembler frames(VideoCodec::kVp8);
  EXPECT_TRUE(frames.take(rtp(vp8_key(8192, 8192), 1, true)));
  for (const auto& [width, height] : {std::pair(8193, 16), std::pair(16, 16383)}) {
    EXPECT_FALSE(frames.take(rtp(vp8_key(width, height), 2, true)));
  }
  EXPECT_EQ(frames.refused(), 2U);
  const Packet part(1400, 0);
  frames.take(rtp(vp8_key(64, 64), 3, false));
  for (std::size_t size = 0; size < FrameAssembler::kMaxFrame + 100 * part.size();
       size += part.size()) {
    frames.take(rtp(part, 3, false));
  }
  EXPECT_FALSE(frames.take(rtp(part, 3, true)));
  EXPECT_EQ(frames.broken(), 1U);
}

TEST(FrameAssembler, PutsH264TogetherAndBreaksWhatLacksAPart) {
  const Packet parameters{0x78, 0, 2, 0x67, 1, 0, 2, 0x68, 2};  // STAP-A: SPS, PPS
  const Packet first{0x7C, 0x85, 10}, middle{0x7C, 0x05, 11}, last{0x7C, 0x45, 12};
  const Packet slice{0x61, 20};
  FrameAssembler frames(VideoCodec::kH264);
  EXPECT_FALSE(frames.take(rtp(parameters, 1, false)));
  EXPECT_FALSE(frames.take(rtp(first, 1, false)));
  EXPECT_FALSE(frames.take(rtp(middle, 1, false)));
  const auto key = frames.take(rtp(last, 1, true));
  ASSERT_TRUE(key && key->is_key);
  EXPECT_EQ(Packet(key->data.begin(), key->data.end()),
            (Packet{0, 0, 0, 1, 0x67, 1, 0, 0, 0, 1, 0x68, 2, 0, 0, 0, 1, 0x65, 10, 11, 12}));
  EXPECT_TRUE(frames.take(rtp(slice, 2, true)));
  frames.take(rtp(first, 3, false));
  frames.lose();
  EXPECT_FALSE(frames.take(rtp(last, 3, true)));
  frames.lose();
  EXPECT_FALSE(frames.take(rtp(slice, 4, true))) << "its beginning may be what was lost";
  EXPECT_TRUE(frames.take(rtp(slice, 5, true)));
  for (const Packet& damaged : {Packet{0x78, 0, 9, 1}, Packet{0x7C, 0x05, 1}, Packet{0x00, 1},
                                Packet{0x67}, Packet{0x7D, 1, 2}}) {
    EXPECT_FALSE(frames.take(rtp(damaged, 6, true)));
  }
}

}  // namespace
}  // namespace sarnet::relay
