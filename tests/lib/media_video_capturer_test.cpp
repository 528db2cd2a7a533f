#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <thread>

#include "lib_test.h"
#include "media/mr_video_capturer.h"

using namespace lib_test;
using std::chrono::milliseconds;

namespace {

using enum MRVideoFrameFormat;

const std::string kBroken =
    "ERROR MRVideoCapturer::runInjectedVideoTask: An error occurred running the MRVideoCapturer "
    "task.";
constexpr const char* kProvide = "srn_video_capturer_provide_frame";

std::unique_ptr<MRVideoFrame> picture(int width = 4, int height = 2, std::uint8_t value = 77) {
  const std::vector<std::uint8_t> bytes(64, value);
  return MRVideoFrame::create(width, height, bytes.data(), YUV420P);
}

/// Drives the capturer through its table, as the library would, or step by step.
class Capturer : public MRVideoCapturer {
 public:
  explicit Capturer(int fps, MRVideoFrameFormat format = YUV420P)
      : MRVideoCapturer({.width = 4, .height = 2, .fps = fps, .format = format}) {}

  srn_bool init() { return table().init(scripted_video_capturer(), table().user_data); }
  srn_bool start() { return table().start(scripted_video_capturer(), table().user_data); }
  srn_bool destroy() { return table().destroy(scripted_video_capturer(), table().user_data); }
  using MRVideoCapturer::getNextFrame;
  using MRVideoCapturer::stop;

  /// Ends the loop while the capturer counts as running: the test then asks for each frame itself.
  void breakLoop() {
    const LogCapture logs(log4cxx::Level::getError());
    init();
    ASSERT_TRUE(start());
    setOnVideoBufferDrainedCallback([] { throw std::runtime_error("broken"); });
    ASSERT_TRUE(addVideo(picture()));
    ASSERT_TRUE(logs.await(kBroken));
    setOnVideoBufferDrainedCallback(nullptr);
  }

 private:
  const srn_video_capturer_callbacks& table() const { return *getSrnCallbacks(); }
};

using VideoCapturer = ScriptedTest;

class VideoCapturerAtRate : public ScriptedTest,
                            public testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(VideoCapturerAtRate, RepeatsTheLastFrameForTwoSecondsThenShowsBlack) {
  const auto [fps, drained_at] = GetParam();
  Capturer capturer(fps);
  capturer.breakLoop();
  int drained = 0;
  capturer.setOnVideoBufferDrainedCallback([&] { ++drained; });
  std::shared_ptr<srn_video_frame> black;
  for (int spell = 1; spell <= 2; ++spell) {
    auto frame = picture();
    const auto wrapped = frame->toSrnVideoFrame();
    ASSERT_TRUE(capturer.addVideo(std::move(frame)));
    ASSERT_EQ(capturer.getNextFrame(), wrapped);
    EXPECT_TRUE(capturer.getVideoFrameBuffers().empty());
    // The frame just taken still counts, until the next look at the queue.
    EXPECT_EQ(capturer.getVideoBufferDuration(), milliseconds(1000 / fps));
    for (int repeat = 1; repeat < 2 * fps; ++repeat) {
      ASSERT_EQ(capturer.getNextFrame(), wrapped) << repeat;
      ASSERT_EQ(drained, repeat < drained_at ? spell - 1 : spell) << repeat;
      EXPECT_EQ(capturer.getVideoBufferDuration(), milliseconds(0));
    }
    for (int i = 0; i < 3 * fps; ++i) {
      const auto shown = capturer.getNextFrame();
      if (!black) black = shown;
      ASSERT_EQ(shown, black);
    }
    EXPECT_EQ(drained, spell);
  }
  EXPECT_EQ(srn_video_frame_get_buffer(black.get())[0], 16);
  EXPECT_EQ(srn_video_frame_get_buffer(black.get())[8], 128);
}

INSTANTIATE_TEST_SUITE_P(Rates, VideoCapturerAtRate,
                         testing::Values(std::pair(3, 1), std::pair(4, 2), std::pair(120, 2)));

TEST_F(VideoCapturer, TakesOnlyFramesOfItsStreamAndAsManyAsItHolds) {
  Capturer capturer(30);
  const auto rgb = [] { return MRVideoFrame::create(4, 2, RGB24); };
  EXPECT_FALSE(capturer.addVideo(picture()));
  EXPECT_FALSE(capturer.clearVideoBuffers());
  EXPECT_FALSE(capturer.stop());
  capturer.breakLoop();
  EXPECT_FALSE(capturer.addVideo(nullptr));
  EXPECT_FALSE(capturer.addVideo(picture(2, 2)));
  EXPECT_FALSE(capturer.addVideo(picture(4, 4)));
  EXPECT_FALSE(capturer.addVideo(rgb()));
  for (int i = 0; i < 150; ++i) ASSERT_TRUE(capturer.addVideo(picture()));
  EXPECT_FALSE(capturer.addVideo(picture()));
  EXPECT_EQ(capturer.getVideoBufferDuration(), milliseconds(5000));
  EXPECT_TRUE(capturer.clearVideoBuffers());
  EXPECT_EQ(capturer.getVideoBufferDuration(), milliseconds(0));
  // The picture holds: what is repeated is the frame before the clear.
  EXPECT_EQ(srn_video_frame_get_buffer(capturer.getNextFrame().get())[0], 77);
}

TEST_F(VideoCapturer, ProvidesFramesInOrderAndKeepsQueuedOnesOverAStop) {
  Capturer capturer(200);
  ASSERT_TRUE(capturer.init());
  ASSERT_TRUE(capturer.start());
  EXPECT_TRUE(capturer.start());  // refused by the runner, and true all the same
  ASSERT_EQ(scripted_wait_calls(kProvide, 2, 20'000), 1);
  for (std::uint8_t value = 1; value <= 30; ++value) {
    ASSERT_TRUE(capturer.addVideo(picture(4, 2, value)));
  }
  ASSERT_TRUE(capturer.destroy());
  EXPECT_FALSE(capturer.isRunning());
  EXPECT_EQ(capturer.getVideoBufferDuration(), milliseconds(0));
  EXPECT_FALSE(capturer.getVideoFrameBuffers().empty());
  ASSERT_TRUE(capturer.start());
  while (scripted_provided_count() < 4096) {
    scripted_provided_frame newest{};
    ASSERT_EQ(scripted_provided(scripted_provided_count() - 1, &newest), 1);
    if (newest.first[0] == 30) break;
    ASSERT_EQ(scripted_wait_calls(kProvide, scripted_call_count(kProvide) + 1, 20'000), 1);
  }
  EXPECT_TRUE(capturer.destroy());
  std::vector<int> shown;
  for (long i = 0; i < scripted_provided_count(); ++i) {
    scripted_provided_frame frame{};
    ASSERT_EQ(scripted_provided(i, &frame), 1);
    EXPECT_EQ(frame.rotation, 0);
    if (frame.first[0] != 16 || frame.first[8] != 128) shown.push_back(frame.first[0]);
  }
  shown.erase(std::unique(shown.begin(), shown.end()), shown.end());
  std::vector<int> expected(30);
  std::iota(expected.begin(), expected.end(), 1);
  EXPECT_EQ(shown, expected);
}

TEST_F(VideoCapturer, StandsAnyRate) {
  constexpr int kMost = std::numeric_limits<int>::max();
  Capturer capturer(kMost);
  ASSERT_TRUE(capturer.init());
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(capturer.start());
  ASSERT_EQ(scripted_wait_calls(kProvide, 30, 20'000), 1);
  // No busy loop: a frame takes about a millisecond, less what the task itself takes.
  EXPECT_GT(std::chrono::steady_clock::now() - begin, milliseconds(10));
  EXPECT_TRUE(capturer.destroy());
}

TEST_F(VideoCapturer, SurvivesItsLifeCycleBeingPlayedUnderTheFeed) {
  Capturer capturer(1000);
  capturer.init();
  std::atomic<bool> ended{false};
  std::thread feeder([&] {
    while (!ended) {
      capturer.addVideo(picture());
      capturer.getVideoBufferDuration();
      capturer.setOnVideoBufferDrainedCallback([] {});
      capturer.clearVideoBuffers();
    }
  });
  std::thread library([&] {
    while (!ended) {
      capturer.destroy();
      std::this_thread::yield();
    }
  });
  for (int round = 0; round < 50; ++round) {
    capturer.start();
    capturer.stop();
  }
  ended = true;
  feeder.join();
  library.join();
}

}  // namespace
