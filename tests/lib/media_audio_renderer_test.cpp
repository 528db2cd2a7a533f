#include <atomic>
#include <cstdint>
#include <future>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include "lib_test.h"
#include "media/mr_audio_renderer.h"

using namespace lib_test;
using std::chrono::milliseconds;

namespace {

constexpr const char* kRead = "srn_audio_device_read_render_data";

/// What a renderer delivered, from any of its threads.
struct Block {
  std::vector<std::int16_t> samples;
  int rate;
  std::size_t channels;
  std::size_t frames;
  std::thread::id thread;
};

class AudioRenderer : public ScriptedTest {
 protected:
  ~AudioRenderer() override { scripted_render_block(0); }
  void take(const MRAudioData& data) {
    const auto* samples = static_cast<const std::int16_t*>(data.sample_buffer_);
    {
      const std::lock_guard lock(mutex_);
      blocks_.push_back({{samples, samples + data.number_of_channels_ * data.number_of_frames_},
                         data.sample_rate_,
                         data.number_of_channels_,
                         data.number_of_frames_,
                         std::this_thread::get_id()});
    }
    heard_.add();
    if (hold_.load()) go_on_.wait();
  }
  std::vector<Block> blocks() {
    const std::lock_guard lock(mutex_);
    return blocks_;
  }

  Counter heard_;
  std::atomic<bool> hold_{false};
  Latch go_on_;
  std::mutex mutex_;
  std::vector<Block> blocks_;
  MRAudioRenderer renderer_{milliseconds(10), [this](const MRAudioData& data) { take(data); }};
};

TEST_F(AudioRenderer, DeliversFullReadsAndEndsQuietlyAtAShortOne) {
  const LogCapture logs(log4cxx::Level::getDebug());
  scripted_render_channels(2);
  ASSERT_TRUE(renderer_.init(16000, 2));
  ASSERT_TRUE(renderer_.start());
  ASSERT_TRUE(heard_.await(3));
  scripted_render_answer(159);
  ASSERT_TRUE(logs.await(
      "DEBUG MRAudioRenderer::loopFn: exiting loop (read:159 < num_frames_in_period:160)"));
  ASSERT_TRUE(logs.await("DEBUG MRAudioRenderer::loopFn: Thread finishes."));
  const auto delivered = blocks();
  std::int16_t next = 0;
  for (const Block& block : delivered) {
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
  EXPECT_TRUE(heard_.await(static_cast<int>(delivered.size()) + 1));
}

TEST_F(AudioRenderer, StopDoesNotWaitForAStuckReadAndStartDoes) {
  const LogCapture logs(log4cxx::Level::getDebug());
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
  ASSERT_TRUE(heard_.await(4));
  renderer_.stop();
  // A stop that timed out on a slow machine leaves the loop to the next join.
  renderer_.destroy();
  std::set<std::thread::id> threads;
  for (const Block& block : blocks()) threads.insert(block.thread);
  EXPECT_LE(threads.size(), 2U);
  EXPECT_GT(logs.count("DEBUG MRAudioRenderer::start: Wait for previous thread to finish"), 0);
}

TEST_F(AudioRenderer, AnOldLoopKeepsItsFormatWhileANewOneIsSet) {
  scripted_render_channels(1);
  hold_ = true;
  ASSERT_TRUE(renderer_.init(8000, 1));
  ASSERT_TRUE(renderer_.start());
  ASSERT_TRUE(heard_.await(1));
  EXPECT_TRUE(renderer_.stop());
  EXPECT_TRUE(renderer_.destroy());
  EXPECT_TRUE(renderer_.init(48000, 2));
  hold_ = false;
  go_on_.open();
  EXPECT_TRUE(renderer_.start());
  scripted_render_channels(2);
  ASSERT_TRUE(heard_.await(heard_.value() + 2));
  const auto delivered = blocks();
  EXPECT_EQ(delivered.front().frames, 80U);
  for (const Block& block : delivered) {
    const bool old = block.thread == delivered.front().thread;
    EXPECT_EQ(block.samples.size(), old ? 80U : 960U);
  }
  EXPECT_EQ(delivered.back().channels, 2U);
}

TEST_F(AudioRenderer, DrainsTheLibraryWithNobodyListening) {
  const LogCapture logs(log4cxx::Level::getWarn(), "MRAudioRenderer");
  MRAudioRenderer deaf(milliseconds(10), nullptr);
  ASSERT_TRUE(deaf.init(48000, 2));
  ASSERT_TRUE(deaf.start());
  EXPECT_EQ(scripted_wait_calls(kRead, 3, 20'000), 1);
  EXPECT_TRUE(deaf.stop());
  EXPECT_GT(logs.count("WARN MRAudioRenderer::loopFn: No callback set in AudioRenderer, audio data "
                       "dropped"),
            0);
}

}  // namespace
