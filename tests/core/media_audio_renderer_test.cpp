#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/log_capture.h"
#include "core/waiting.h"
#include "media/mr_audio_renderer.h"
#include "support/scripted_sarnet.h"

namespace {

using std::chrono::milliseconds;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kRead = "srn_audio_device_read_render_data";

/// What a renderer delivered, from any of its threads.
class Listener {
 public:
  struct Block {
    std::vector<std::int16_t> samples;
    int rate;
    std::size_t channels;
    std::size_t frames;
    std::thread::id thread;
  };

  MRAudioDataCallback callback() {
    return [this](const MRAudioData& data) {
      const auto* samples = static_cast<const std::int16_t*>(data.sample_buffer_);
      const std::size_t count = data.number_of_channels_ * data.number_of_frames_;
      {
        const std::lock_guard lock(mutex_);
        blocks_.push_back({{samples, samples + count},
                           data.sample_rate_,
                           data.number_of_channels_,
                           data.number_of_frames_,
                           std::this_thread::get_id()});
      }
      heard.add();
      if (hold.load()) held_until.get_future().wait();
    };
  }

  std::vector<Block> blocks() {
    const std::lock_guard lock(mutex_);
    return blocks_;
  }

  Counter heard;
  std::atomic<bool> hold{false};
  std::promise<void> held_until;

 private:
  std::mutex mutex_;
  std::vector<Block> blocks_;
};

class AudioRenderer : public testing::Test {
 protected:
  AudioRenderer() { scripted_reset(); }
  ~AudioRenderer() override { scripted_render_block(0); }

  Listener listener_;
  MRAudioRenderer renderer_{milliseconds(10), listener_.callback()};
};

TEST_F(AudioRenderer, AnswersEachLifeCycleCallByItsState) {
  LogCapture logs(log4cxx::Level::getWarn());
  constexpr int kMost = std::numeric_limits<int>::max();
  const struct {
    std::function<bool()> call;
    bool result;
    const char* warning;
  } kSteps[] = {
      {[&] { return renderer_.start(); }, false, "start: Not initialized"},
      {[&] { return renderer_.stop(); }, false, "stop: Not initialized"},
      {[&] { return renderer_.destroy(); }, false, "destroy: Not initialized"},
      {[&] { return renderer_.init(-48000, 2); }, false,
       "init: Unusable format. sample_rate: -48000 channels: 2"},
      {[&] { return renderer_.init(kMost, kMost); }, false,
       "init: Unusable format. sample_rate: 2147483647 channels: 2147483647"},
      {[&] { return renderer_.init(48000, 1); }, true, ""},
      {[&] { return renderer_.init(48000, 1); }, false, "init: Already initialized"},
      {[&] { return renderer_.stop(); }, false, "stop: Not running"},
      {[&] { return renderer_.start(); }, true, ""},
      {[&] { return renderer_.start(); }, false, "start: ALREADY started !!!"},
      {[&] { return renderer_.isRunning(); }, true, ""},
      {[&] { return renderer_.stop(); }, true, ""},
      {[&] { return renderer_.stop(); }, false, "stop: Not running"},
      {[&] { return renderer_.start(); }, true, ""},
      {[&] { return renderer_.destroy(); }, true, "destroy: destroy called before stop"},
      {[&] { return renderer_.isInitialized() || renderer_.isRunning(); }, false, ""},
  };
  int step = 0;
  for (const auto& row : kSteps) {
    logs.clear();
    EXPECT_EQ(row.call(), row.result) << step;
    const std::string warning = row.warning;
    EXPECT_EQ(logs.lines("MRAudioRenderer"),
              warning.empty()
                  ? std::vector<std::string>()
                  : std::vector<std::string>{"WARN MRAudioRenderer MRAudioRenderer::" + warning})
        << step;
    ++step;
  }
}

TEST_F(AudioRenderer, DeliversFullReadsAndEndsQuietlyAtAShortOne) {
  LogCapture logs;
  scripted_render_channels(2);
  ASSERT_TRUE(renderer_.init(16000, 2));
  ASSERT_TRUE(renderer_.start());
  ASSERT_TRUE(listener_.heard.waitFor(3));
  scripted_render_answer(159);
  ASSERT_TRUE(
      logs.waitFor("MRAudioRenderer::loopFn: exiting loop (read:159 < num_frames_in_period:160)"));
  ASSERT_TRUE(logs.waitFor("MRAudioRenderer::loopFn: Thread finishes."));
  const auto blocks = listener_.blocks();
  std::int16_t next = 0;
  for (const auto& block : blocks) {
    EXPECT_EQ(block.rate, 16000);
    EXPECT_EQ(block.channels, 2U);
    EXPECT_EQ(block.frames, 160U);
    for (const std::int16_t sample : block.samples) EXPECT_EQ(sample, next++);
  }
  EXPECT_TRUE(renderer_.isRunning());
  EXPECT_FALSE(renderer_.start());
  EXPECT_TRUE(renderer_.stop());
  scripted_render_answer(160);
  EXPECT_TRUE(renderer_.start());
  EXPECT_TRUE(listener_.heard.waitFor(static_cast<int>(blocks.size()) + 1));
}

TEST_F(AudioRenderer, StopDoesNotWaitForAStuckReadAndStartDoes) {
  LogCapture logs(log4cxx::Level::getDebug());
  ASSERT_TRUE(renderer_.init(48000, 1));
  scripted_render_block(1);
  ASSERT_TRUE(renderer_.start());
  ASSERT_EQ(scripted_wait_calls(kRead, 1, 20'000), 1);
  auto stopper = std::async(std::launch::async, [&] { return renderer_.stop(); });
  ASSERT_EQ(stopper.wait_for(kDeadline), std::future_status::ready);
  EXPECT_TRUE(stopper.get());

  // Two threads want it started again: both wait, one succeeds, and one loop comes of it.
  std::atomic<int> answered{0};
  const auto restart = [&] {
    const bool started = renderer_.start();
    ++answered;
    return started;
  };
  auto first = std::async(std::launch::async, restart);
  auto second = std::async(std::launch::async, restart);
  EXPECT_FALSE(renderer_.stop());
  EXPECT_EQ(answered, 0);
  EXPECT_EQ(scripted_call_count(kRead), 1);
  scripted_render_block(0);
  EXPECT_NE(first.get(), second.get());
  ASSERT_TRUE(listener_.heard.waitFor(4));
  renderer_.stop();
  // A stop that timed out on a slow machine leaves the loop to the next join.
  renderer_.destroy();
  const auto blocks = listener_.blocks();
  std::set<std::thread::id> threads;
  for (const auto& block : blocks) threads.insert(block.thread);
  EXPECT_LE(threads.size(), 2U);
  const auto lines = logs.lines("MRAudioRenderer");
  EXPECT_THAT(lines, Contains("DEBUG MRAudioRenderer MRAudioRenderer::start: Wait for previous "
                              "thread to finish"));
}

TEST_F(AudioRenderer, AnOldLoopKeepsItsFormatWhileANewOneIsSet) {
  scripted_render_channels(1);
  listener_.hold = true;
  ASSERT_TRUE(renderer_.init(8000, 1));
  ASSERT_TRUE(renderer_.start());
  ASSERT_TRUE(listener_.heard.waitFor(1));
  EXPECT_TRUE(renderer_.stop());
  EXPECT_TRUE(renderer_.destroy());
  EXPECT_TRUE(renderer_.init(48000, 2));
  listener_.hold = false;
  listener_.held_until.set_value();
  EXPECT_TRUE(renderer_.start());
  scripted_render_channels(2);
  const int before = listener_.heard.value();
  ASSERT_TRUE(listener_.heard.waitFor(before + 2));
  const auto blocks = listener_.blocks();
  EXPECT_EQ(blocks.front().channels, 1U);
  EXPECT_EQ(blocks.front().frames, 80U);
  for (const auto& block : blocks) {
    const bool old = block.thread == blocks.front().thread;
    EXPECT_EQ(block.samples.size(), old ? 80U : 960U);
  }
  EXPECT_EQ(blocks.back().channels, 2U);
}

TEST_F(AudioRenderer, AThrowingCallbackEndsTheLoopOnly) {
  LogCapture logs(log4cxx::Level::getWarn());
  MRAudioRenderer failing(milliseconds(10),
                          [](const MRAudioData&) { throw std::runtime_error("deaf"); });
  ASSERT_TRUE(failing.init(48000, 1));
  ASSERT_TRUE(failing.start());
  EXPECT_TRUE(logs.waitFor("MRAudioRenderer::loopFn: Exception occurred running loop: deaf"));
  EXPECT_TRUE(failing.stop());
}

TEST_F(AudioRenderer, DrainsTheLibraryWithNobodyListening) {
  LogCapture logs(log4cxx::Level::getWarn());
  MRAudioRenderer deaf(milliseconds(10), nullptr);
  ASSERT_TRUE(deaf.init(48000, 2));
  ASSERT_TRUE(deaf.start());
  EXPECT_EQ(scripted_wait_calls(kRead, 3, 20'000), 1);
  EXPECT_TRUE(deaf.stop());
  const auto lines = logs.lines("MRAudioRenderer");
  ASSERT_GE(lines.size(), 3U);
  EXPECT_THAT(lines[0], HasSubstr("All audio data will be dropped because no audio callback"));
  EXPECT_THAT(lines[2],
              "WARN MRAudioRenderer MRAudioRenderer::loopFn: No callback set in "
              "AudioRenderer, audio data dropped");
}

}  // namespace
