#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "audio/drift_buffer.h"
#include "relay/loopback.h"
#include "relay/loss.h"

namespace {

using loopback::Call;
using loopback::Listener;
using namespace std::chrono_literals;
using sarnet::relay::PublishSettings;

double seconds(loopback::Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

// Tells when the listener has got this much.
std::function<bool()> got(Listener& listener, std::size_t frames, std::size_t blocks) {
  return [&listener, frames, blocks] {
    return listener.wait(
        [&](const Listener& l) { return l.frames.size() >= frames && l.blocks >= blocks; }, 0ms);
  };
}

void expect_numbers_grow(const Listener& listener) {
  for (std::size_t i = 0; i < listener.frames.size(); ++i) {
    EXPECT_GE(listener.frames[i].number, 0) << "frame " << i << " is damaged";
    EXPECT_GT(listener.frames[i].number, i > 0 ? listener.frames[i - 1].number : -1);
  }
}

// The tone sounds in ten blocks of a hundred; coding smears it over one or two more.
void expect_bursts(const Listener& listener) {
  const std::size_t bursts = listener.blocks / 100;
  EXPECT_GE(listener.loud_blocks.size(), bursts * 10 - 2);
  EXPECT_LE(listener.loud_blocks.size(), (bursts + 1) * 12);
  EXPECT_EQ(listener.block_sizes, std::vector<int>{480});
}

struct Kind {
  const char* name;
  PublishSettings settings;
  bool prefers_h264 = false;
};

class Peers : public testing::TestWithParam<Kind> {};

TEST_P(Peers, CarryWhatIsPublishedAndNoMore) {
  const PublishSettings& settings = GetParam().settings;
  Call call(settings);
  call.edit_offer = [&](std::string sdp) {
    const std::size_t line = sdp.find(" 96 97");
    if (GetParam().prefers_h264 && line != std::string::npos) sdp.replace(line, 6, " 97 96");
    return sdp;
  };
  call.start();
  ASSERT_TRUE(call.connected()) << call.failure();
  Listener& listener = call.listener();
  call.feed(got(listener, settings.has_video ? 50 : 0, settings.has_audio ? 210 : 0), 20s);
  EXPECT_EQ(listener.frames.empty(), !settings.has_video);
  EXPECT_EQ(listener.blocks == 0, !settings.has_audio);
  expect_numbers_grow(listener);
  if (settings.has_audio) {
    expect_bursts(listener);
    EXPECT_EQ(listener.channels, settings.stereo ? 2 : 1);
  }
  if (settings.has_video) {
    EXPECT_EQ(call.answered_codec(), GetParam().prefers_h264 ? "H264" : "VP8");
    // What is lost is asked for again, and key frames in the form that every server understands.
    EXPECT_NE(call.answer().find(" nack\r\n"), std::string::npos);
    EXPECT_NE(call.answer().find(" nack pli\r\n"), std::string::npos);
    EXPECT_EQ(call.answer().find("ccm fir"), std::string::npos);
    const std::size_t before = listener.frames.size();
    call.width = 418;
    call.height = 242;
    call.feed(got(listener, before + 20, 0), 20s);
    EXPECT_EQ(listener.frames.back().width, 418);
    EXPECT_EQ(listener.frames.back().height, 242);
    expect_numbers_grow(listener);
  }
  call.publisher().on_caption("héllo", false);
  call.publisher().on_caption("héllo \"world\"", true);
  if (settings.captions) {
    ASSERT_TRUE(listener.wait([](const Listener& l) { return l.captions.size() >= 2; }));
    EXPECT_EQ(listener.captions[0], std::pair(std::string("héllo"), false));
    EXPECT_EQ(listener.captions[1], std::pair(std::string("héllo \"world\""), true));
  }
  call.stop();
  EXPECT_EQ(listener.captions.size(), settings.captions ? 2U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Peers,
                         testing::Values(Kind{"everything", {.stereo = true, .captions = true}},
                                         Kind{"sound_alone", {.has_video = false}},
                                         Kind{"pictures_alone", {.has_audio = false}},
                                         Kind{"h264", {.captions = true}, true}),
                         [](const auto& kind) { return std::string(kind.param.name); });

// What share of the session's mix is sound, from the second second on, when blocks of 10 ms come at
// these times and the mix is read every 10 ms.
double wholeness_of_mix(const Listener& listener) {
  sarnet::DriftBuffer buffer({48000, 1}, {48000, 1});
  std::vector<std::int16_t> block(480, 1000);
  const auto& times = listener.block_times;
  std::size_t given = 0;
  std::size_t reads = 0;
  std::uint64_t silent_before = 0;
  for (auto now = times.front(); given < times.size(); now += 10ms, ++reads) {
    for (; given < times.size() && times[given] <= now; ++given) {
      buffer.write(std::vector<std::int16_t>(480, 1000));
    }
    buffer.read(block);
    if (reads == 100) silent_before = buffer.counters().frames_silent;
  }
  const auto silent = static_cast<double>(buffer.counters().frames_silent - silent_before);
  return 1 - silent / (480.0 * static_cast<double>(reads - 100));
}

// As with a server, which sends no lost sound again.
TEST(PeersUnderLoss, KeepTheMixWhole) {
  for (const auto& [share, whole] : {std::pair(0.03, 0.995), std::pair(0.10, 0.98)}) {
    const loopback::PacketLoss loss(share);
    Call call({.has_video = false, .stereo = true});
    call.edit_offer = [](const std::string& sdp) {
      const std::regex lines("a=[^\\r]*(nack|rtx|:96 )[^\\r]*\\r\\n");
      return std::regex_replace(std::regex_replace(sdp, lines, ""), std::regex(" 96\\r"), "\r");
    };
    call.start();
    ASSERT_TRUE(call.connected()) << call.failure();
    call.feed([] { return false; }, 8s);
    call.stop();
    EXPECT_GT(loopback::PacketLoss::lost(), 10);
    EXPECT_GE(wholeness_of_mix(call.listener()), whole) << share;
  }
}

TEST(PeersUnderLoss, StandThreePercentEachWay) {
  const loopback::PacketLoss loss(0.03);
  Call call({.stereo = true, .captions = true});
  call.width = 640;
  call.height = 480;
  call.start();
  ASSERT_TRUE(call.connected()) << call.failure();
  call.feed([] { return false; }, 10s);
  call.stop();
  const Listener& listener = call.listener();
  EXPECT_GT(loopback::PacketLoss::lost(), 40);
  EXPECT_GE(static_cast<double>(listener.frames.size()), 0.85 * call.pictures_sent());
  expect_numbers_grow(listener);
  for (std::size_t i = 1; i < listener.frames.size(); ++i) {
    EXPECT_LT(seconds(listener.frames[i].at - listener.frames[i - 1].at), 1.0) << "frame " << i;
  }
  // All but what was still under way.
  EXPECT_GE(static_cast<double>(listener.blocks), 0.95 * call.blocks_sent());
  EXPECT_LT(seconds(listener.longest_silence), 1.0);
  EXPECT_GE(wholeness_of_mix(listener), 0.99);
  expect_bursts(listener);
}

std::size_t entries(const char* folder) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder),
                                                std::filesystem::directory_iterator()));
}

TEST(PeersAgainAndAgain, LeaveNothingBehind) {
  std::size_t threads = 0;
  std::size_t files = 0;
  for (int round = 0; round < 8; ++round) {
    {
      Call call({.stereo = true, .captions = true});
      call.start();
      // The second half ends before it is connected.
      if (round < 4) {
        ASSERT_TRUE(call.connected()) << call.failure();
        call.feed(got(call.listener(), 2, 2), 20s);
      }
    }
    if (round == 1) {
      threads = entries("/proc/self/task");
      files = entries("/proc/self/fd");
    }
  }
  EXPECT_LE(entries("/proc/self/fd"), files);
  EXPECT_LE(entries("/proc/self/task"), threads);
}

}  // namespace
