// From coded frames to packets, and what the other side says of them.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <vector>

#include "relay/media/codecs/opus_coder.h"
#include "relay/media/receive/frame_assembler.h"
#include "relay/media/send/publication_sender.h"

namespace sarnet::relay {
namespace {

using namespace std::chrono_literals;
using Packet = std::vector<std::uint8_t>;

class Wire : public PublicationSender::Output {
 public:
  void send_rtp(Bytes packet) override { rtp.emplace_back(packet.begin(), packet.end()); }
  void send_rtcp(Bytes packet) override { rtcp.emplace_back(packet.begin(), packet.end()); }
  std::vector<Packet> rtp;
  std::vector<Packet> rtcp;
};

constexpr std::uint32_t kAudio = 5;
constexpr std::uint32_t kVideo = 6;

class Sending : public testing::Test {
 protected:
  // Lets time pass as whoever drives the sender does.
  void run(Micros duration) {
    for (const Micros end = now_ + duration; now_ < end; now_ += 1ms) {
      if (const auto due = sender_.deadline(); due && *due <= now_) sender_.advance(now_);
    }
  }
  void feed_back(const std::function<void(RtcpWriter&)>& write) {
    RtcpWriter writer;
    write(writer);
    sender_.take_rtcp(writer.bytes(), now_);
  }
  void report_loss(double share) {
    const ReportBlock block{.ssrc = kVideo,
                            .fraction_lost = static_cast<std::uint8_t>(share * 256)};
    feed_back([&](RtcpWriter& writer) { writer.receiver_report(1, std::span(&block, 1)); });
  }

  Wire wire_;
  PublicationSender sender_{
      {.audio_ssrc = kAudio, .video_ssrc = kVideo, .cname = "me"}, Micros{0}, wire_};
  Micros now_{1s};
};

TEST_F(Sending, CutsFramesOfAnySizeSoThatTheyComeTogetherAgain) {
  std::mt19937 random(1);
  for (const VideoCodec codec : {VideoCodec::kVp8, VideoCodec::kH264}) {
    sender_.set_video(codec, 96);
    FrameAssembler frames(codec);
    for (const std::size_t size : {4U, 11U, 1180U, 1184U, 1185U, 1188U, 1189U, 2400U, 60000U}) {
      SCOPED_TRACE(size);
      Packet frame(size);
      for (std::uint8_t& byte : frame) byte = static_cast<std::uint8_t>(random() | 1U);
      if (codec == VideoCodec::kH264) {
        frame.insert(frame.begin(), {0, 0, 0, 1, 0x67, 9, 0, 0, 0, 1, 0x65});
      }
      wire_.rtp.clear();
      sender_.send_video(frame, now_, now_);
      run(1s);
      for (std::size_t i = 0; i < wire_.rtp.size(); ++i) {
        ASSERT_LE(wire_.rtp[i].size(), kMaxPacket);
        const auto whole = frames.take(*parse_rtp(wire_.rtp[i]));
        ASSERT_EQ(whole.has_value(), i + 1 == wire_.rtp.size());
        if (whole) {
          EXPECT_EQ(Packet(whole->data.begin(), whole->data.end()), frame);
        }
      }
    }
  }
}

TEST_F(Sending, SpreadsAKeyFrameAndLetsSoundPass) {
  sender_.send_video(Packet(60'000, 1), now_, now_);
  EXPECT_LE(wire_.rtp.size(), 12U);
  sender_.send_audio(Packet(80, 2), now_, false, now_);
  EXPECT_EQ(parse_rtp(wire_.rtp.back())->ssrc, kAudio);
  const Micros begin = now_;
  while (wire_.rtp.size() < 52 && now_ - begin < 1s) run(1ms);
  EXPECT_GE((now_ - begin).count(), Micros(30ms).count());
  EXPECT_LE((now_ - begin).count(), Micros(150ms).count());
}

TEST_F(Sending, SendsAgainWhatIsAskedForOnceInAWhile) {
  for (int i = 0; i < 400; ++i) sender_.send_audio(Packet(50, 1), now_, false, now_);
  const auto last = static_cast<std::int64_t>(parse_rtp(wire_.rtp.back())->sequence);
  const auto ask = [&](std::int64_t sequence) {
    const std::size_t before = wire_.rtp.size();
    feed_back([&](RtcpWriter& writer) { writer.nack(1, kAudio, std::span(&sequence, 1)); });
    return wire_.rtp.size() - before;
  };
  EXPECT_EQ(ask(last - 200), 1U);
  EXPECT_EQ(wire_.rtp.back(), wire_.rtp[199]);
  EXPECT_EQ(ask(last - 200), 0U) << "it is on its way";
  run(50ms);
  EXPECT_EQ(ask(last - 200), 1U);
  EXPECT_EQ(ask(last - 300), 0U) << "long gone";
  EXPECT_EQ(ask(last + 5), 0U) << "not sent yet";
}

TEST_F(Sending, FollowsWhatTheWayTakes) {
  sender_.set_wanted_bitrate(1'000'000);
  EXPECT_EQ(sender_.bitrate(), 1'000'000U);
  feed_back([](RtcpWriter& writer) { writer.bitrate_limit(1, 300'000, {}); });
  EXPECT_LE(sender_.bitrate(), 300'000U);
  feed_back([](RtcpWriter& writer) { writer.bitrate_limit(1, 100'000'000, {}); });
  for (int i = 0; i < 3; ++i, run(400ms)) report_loss(0.5);
  EXPECT_LE(sender_.bitrate(), 300'000U) << "half is lost for a second";
  for (int i = 0; i < 10; ++i, run(1s)) report_loss(0.01);
  EXPECT_GE(sender_.bitrate(), 900'000U) << "ten seconds of calm";
}

TEST_F(Sending, AnswersRequestsForKeyFramesFourTimesASecondAtMost) {
  int made = 0;
  for (int i = 0; i < 100; ++i, run(10ms)) {
    feed_back([](RtcpWriter& writer) { writer.picture_loss(1, kVideo); });
    made += sender_.take_key_request() ? 1 : 0;
  }
  EXPECT_EQ(made, 4);
}

TEST_F(Sending, ReportsTheClocksOfSoundAndPicturesAlike) {
  struct Reports : RtcpHandler {
    void on_sender_report(std::uint32_t sender, const SenderInfo& info) override {
      reports[sender] = info;
    }
    std::map<std::uint32_t, SenderInfo> reports;
  } handler;
  sender_.send_audio(Packet(50, 1), now_, false, now_);
  sender_.send_video(Packet(50, 1), now_, now_);
  const std::uint32_t audio = parse_rtp(wire_.rtp[0])->timestamp;
  const std::uint32_t video = parse_rtp(wire_.rtp[1])->timestamp;
  now_ += 500ms;
  sender_.advance(now_);
  for (const Packet& packet : wire_.rtcp) EXPECT_TRUE(parse_rtcp(packet, handler));
  ASSERT_EQ(handler.reports.size(), 2U);
  EXPECT_EQ(handler.reports[kAudio].rtp_timestamp - audio, 24000U);
  EXPECT_EQ(handler.reports[kVideo].rtp_timestamp - video, 45000U);
  EXPECT_EQ(handler.reports[kAudio].ntp, handler.reports[kVideo].ntp);
}

TEST(OpusCoder, SaysNextToNothingOfSilence) {
  int packets = 0;
  int begins = 0;
  OpusCoder coder(false, true, [&](std::span<const std::uint8_t>, Micros, bool begin) {
    ++packets;
    begins += begin ? 1 : 0;
  });
  std::vector<std::int16_t> block(480);
  const auto push = [&](int blocks, int amplitude) {
    for (int i = 0; i < blocks; ++i) {
      for (std::size_t k = 0; k < block.size(); ++k) {
        block[k] = static_cast<std::int16_t>(k % 48 < 24 ? amplitude : -amplitude);
      }
      coder.push({48000, 1}, block, Micros{i * 10'000});
    }
  };
  push(100, 8000);
  EXPECT_EQ(packets, 50);
  push(300, 0);
  EXPECT_LE(packets, 50 + 25);
  packets = 0;
  push(100, 8000);
  EXPECT_GE(packets, 49);
  EXPECT_GE(begins, 1);
}

}  // namespace
}  // namespace sarnet::relay
