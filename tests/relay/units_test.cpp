#include <gtest/gtest.h>
#include <opus/opus.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "relay/media/codecs/opus_stream.h"
#include "relay/media/send/stamp_clock.h"
#include "relay/peer/caption_text.h"
#include "relay/peer/peer.h"
#include "relay/room/room_member.h"

namespace sarnet::relay {
namespace {

using Packet = std::vector<std::uint8_t>;

// The rows that the room page is tested with, too.
json room_texts(const char* kind) { return json::parse(std::ifstream(ROOM_TEXTS_PATH))[kind]; }

std::string repeated(const json& row, const char* name) {
  std::string text;
  for (int i = row.value("times", 1); i > 0; --i) text += row.value(name, "");
  return text;
}

TEST(RoomTexts, CaptionsAreReadAndWritten) {
  for (const json& row : room_texts("captions")) {
    const std::string message = repeated(row, "message");
    const auto caption = decode_caption(message);
    ASSERT_EQ(caption.has_value(), row.contains("text")) << message.substr(0, 40);
    if (!caption) continue;
    EXPECT_EQ(caption->text, repeated(row, "text"));
    EXPECT_EQ(caption->is_final, row.value("final", true));
    const std::string written = encode_caption(caption->text, caption->is_final);
    EXPECT_TRUE(!row.contains("ours") || json::parse(written) == json::parse(message)) << written;
  }
  EXPECT_EQ(decode_caption(encode_caption("a\xFF", true))->text, "a\xEF\xBF\xBD");
  EXPECT_FALSE(decode_caption("a\xFF"));
}

TEST(RoomTexts, DisplaysAreRead) {
  for (const json& row : room_texts("displays")) {
    const Display display = parse_display(repeated(row, "display"));
    EXPECT_EQ(display.data, row.value("data", "")) << row;
    EXPECT_EQ(display.joined_ms, row.value("joined", 0)) << row;
    EXPECT_EQ(display.stream, row.value("stream", "")) << row;
    EXPECT_EQ(display.owner, row.value("owner", "")) << row;
  }
}

constexpr std::int64_t kMs = 1'000'000;

TEST(StampClock, CountsThroughJitter) {
  StampClock clock(48000);
  const std::int64_t start = 5000 * kMs;
  for (std::int64_t i = 0; i < 1000; ++i) {
    const std::int64_t jitter = i == 0 ? 0 : i * 7919 % 60 * kMs;
    EXPECT_EQ(clock.stamp(start + i * 10 * kMs + jitter, 480), start + i * 10 * kMs);
    EXPECT_EQ(clock.restarted(), i == 0);
  }
}

TEST(StampClock, StaysNearTheClockAndNeverGoesBack) {
  // How long a unit of 1/30 s really takes: right, 2 % fast or slow, twice as fast, with pauses.
  struct Row {
    double period_ms;
    double pause_ms;  // after each hundredth unit
  };
  for (const Row& row :
       {Row{33.3333, 0}, Row{32.68, 0}, Row{34, 0}, Row{16.7, 0}, Row{33.3333, 3000}}) {
    StampClock clock(30);
    std::int64_t last = std::numeric_limits<std::int64_t>::min();
    double now_ms = 0;
    for (int i = 0; i < 3000; ++i) {
      const auto now = static_cast<std::int64_t>(now_ms * 1e6);
      const std::int64_t stamp = clock.stamp(now, 1);
      EXPECT_GT(stamp, last);
      EXPECT_LE(std::abs(stamp - now), StampClock::kToleranceNs + 34 * kMs)
          << row.period_ms << " " << i;
      last = stamp;
      now_ms += row.period_ms + (i % 100 == 99 ? row.pause_ms : 0);
    }
  }
}

// Twenty packets of a 440 Hz tone, 20 ms each, in mono as speech is sent. The tone of packet 14 is
// an octave higher.
std::vector<Packet> tone_packets() {
  int error = OPUS_OK;
  OpusEncoder* encoder = opus_encoder_create(48000, 1, OPUS_APPLICATION_VOIP, &error);
  opus_encoder_ctl(encoder, OPUS_SET_BITRATE(32000));
  opus_encoder_ctl(encoder, OPUS_SET_INBAND_FEC(1));
  opus_encoder_ctl(encoder, OPUS_SET_PACKET_LOSS_PERC(20));
  opus_encoder_ctl(encoder, OPUS_SET_BANDWIDTH(OPUS_BANDWIDTH_WIDEBAND));
  std::vector<Packet> packets;
  std::vector<std::int16_t> samples(960);
  for (int i = 0; i < 20; ++i) {
    const int pitch = i == 14 ? 880 : 440;
    for (int k = 0; k < 960; ++k) {
      samples[static_cast<std::size_t>(k)] =
          static_cast<std::int16_t>(10000 * std::sin(2 * M_PI * pitch * (i * 960 + k) / 48000));
    }
    Packet packet(1500);
    packet.resize(static_cast<std::size_t>(opus_encode(encoder, samples.data(), 960, packet.data(),
                                                       static_cast<opus_int32>(packet.size()))));
    packets.push_back(packet);
  }
  opus_encoder_destroy(encoder);
  return packets;
}

TEST(OpusStream, FillsLossesAndKeepsTheStreamInPlace) {
  const std::vector<Packet> packets = tone_packets();
  struct Row {
    const char* what;
    std::vector<int> order;
    bool told;  // what packet 14 was
  };
  const std::vector<Row> rows{
      {"whole", {10, 11, 12, 13, 14, 15, 16, 17, 18, 19}, true},
      {"one lost", {10, 11, 12, 13, 15, 16, 17, 18, 19}, true},
      {"three lost", {10, 11, 12, 13, 17, 18, 19}, false},
      {"late and double", {10, 11, 13, 12, 13, 14, 15, 16, 17, 18, 19}, true},
  };
  for (const std::uint16_t first : {std::uint16_t{0}, std::uint16_t{65534}}) {
    for (const Row& row : rows) {
      std::vector<std::int16_t> heard;
      OpusStream stream(0, [&](const AudioFormat& format, std::span<const std::int16_t> samples) {
        EXPECT_EQ(format, (AudioFormat{48000, 1}));
        heard.insert(heard.end(), samples.begin(), samples.end());
      });
      for (const int i : row.order) {
        stream.take(static_cast<std::uint16_t>(first + i),
                    static_cast<std::uint32_t>(i) * 960 + 0xffffe000U,
                    packets[static_cast<std::size_t>(i)]);
      }
      ASSERT_EQ(heard.size(), 9600U) << row.what;
      // Packet 14, told by the next one or guessed from those before, behind the decoder's delay.
      int crossings = 0;
      for (std::size_t k = 4 * 960 + 480; k < 5 * 960 + 240; ++k) {
        crossings += (heard[k] < 0) != (heard[k - 1] < 0) ? 1 : 0;
      }
      EXPECT_NEAR(crossings, row.told ? 26 : 13, 3) << row.what;
    }
  }
}

TEST(OpusStream, TakesNothingButOpusAndBeginsAnewWithTheSender) {
  const std::vector<Packet> packets = tone_packets();
  std::size_t frames = 0;
  OpusStream stream(2, [&](const AudioFormat& format, std::span<const std::int16_t> samples) {
    frames += samples.size() / static_cast<std::size_t>(format.channels);
  });
  stream.take(40000, 0, {});
  stream.take(40000, 0, Packet{0xff});
  EXPECT_EQ(frames, 0U);
  stream.take(40000, 0, packets[0]);
  stream.take(100, 77, packets[1]);                // a new beginning
  stream.take(101, 77 + 960 + 4800, packets[2]);   // after 100 ms in which nothing was sent
  stream.take(103, 77 + 10 * 48000U, packets[3]);  // too long a loss to fill
  EXPECT_EQ(frames, 4 * 960U + 4800U);
}

}  // namespace
}  // namespace sarnet::relay
