#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <thread>

#include "lib_test.h"
#include "media/mr_audio_capturer.h"

using namespace lib_test;
using std::chrono::milliseconds;
using testing::Each;
using testing::IsEmpty;

namespace {

constexpr const char* kWrite = "srn_audio_device_write_capture_data";
constexpr std::size_t kCapacity = MRAudioCapturer::kInjectedAudioBufferSize;

/// Samples that tell their own position, and are never 0.
std::vector<std::int16_t> ramp(std::size_t count, std::size_t first = 0) {
  std::vector<std::int16_t> samples(count);
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = static_cast<std::int16_t>((first + i) % 32003 + 1);
  }
  return samples;
}

MRAudioData mono(const std::vector<std::int16_t>& samples) {
  return {samples.data(), 48000, 1, samples.size()};
}

std::vector<std::int16_t> captured(std::uint64_t from = 0) {
  std::vector<std::int16_t> samples(scripted_captured_total() - from);
  samples.resize(scripted_captured(from, samples.data(), samples.size()));
  return samples;
}

/// What was captured between the silence before and the silence after.
std::vector<std::int16_t> sound(std::uint64_t from = 0) {
  std::vector<std::int16_t> samples = captured(from);
  while (!samples.empty() && samples.back() == 0) samples.pop_back();
  std::size_t silent = 0;
  while (silent < samples.size() && samples[silent] == 0) ++silent;
  samples.erase(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(silent));
  return samples;
}

bool waitForPeriods(long more) {
  return scripted_wait_calls(kWrite, scripted_call_count(kWrite) + more, 20'000) == 1;
}

class AudioCapturer : public ScriptedTest {
 protected:
  /// Ends the loop, with the state left at Running: from then on nothing takes audio away.
  void breakLoop() {
    const LogCapture logs(log4cxx::Level::getError());
    capturer_.setOnAudioBuffersDrainedCallback([] { throw std::runtime_error("broken"); });
    ASSERT_TRUE(capturer_.addAudio(mono(ramp(480))));
    ASSERT_TRUE(
        logs.await("ERROR An error occurred running the AudioCapturer task: Exception "
                   "occurred running loop: broken"));
  }

  MRAudioCapturer capturer_{milliseconds(10)};
};

TEST_F(AudioCapturer, PlaysWhatCameThenPadsThenWaitsThenFallsSilent) {
  LogCapture logs(log4cxx::Level::getTrace(), "MRAudioCapturer");
  scripted_capture_channels(2);
  std::vector<std::uint64_t> captured_when_drained;
  Counter drained;
  capturer_.setOnAudioBuffersDrainedCallback([&] {
    captured_when_drained.push_back(scripted_captured_total());
    drained.add();
  });
  ASSERT_TRUE(capturer_.init(48000, 2));
  ASSERT_TRUE(capturer_.start());
  // Silence at once, and no drained report: nothing has run dry yet.
  ASSERT_TRUE(waitForPeriods(5));
  EXPECT_EQ(drained.value(), 0);
  EXPECT_THAT(captured(), Each(0));

  // Less than a period waits for the rest of it; then all is played, odd bursts and all.
  const std::uint64_t begin = scripted_captured_total();
  const auto samples = ramp(std::size_t{960} * 3 + 100);
  ASSERT_TRUE(capturer_.addAudio({samples.data(), 48000, 2, 200}));
  logs.clear();
  ASSERT_TRUE(logs.await("TRACE Begin write capture data...", 2));
  EXPECT_EQ(capturer_.getAudioBufferDuration(), milliseconds(200 * 1000 / 48000));
  EXPECT_THAT(sound(begin), IsEmpty());
  logs.clear();
  ASSERT_TRUE(capturer_.addAudio({samples.data() + 400, 8000, 2, (samples.size() - 400) / 2}));
  ASSERT_TRUE(drained.await(1));
  ASSERT_TRUE(waitForPeriods(3));
  EXPECT_EQ(sound(begin), samples);
  // The report came before any silence, and right behind the padded rest.
  const auto at_report = static_cast<std::size_t>(captured_when_drained.at(0));
  const std::vector<std::int16_t> all = captured();
  EXPECT_EQ(at_report % 960, 0U);
  EXPECT_EQ(all.at(at_report - 960), samples.at(std::size_t{960} * 3));
  EXPECT_EQ(all.at(at_report - 960 + 100), 0);
  // Once a spell: again after more data, not after a clear.
  ASSERT_TRUE(capturer_.addAudio({samples.data(), 48000, 2, 480}));
  ASSERT_TRUE(drained.await(2));
  ASSERT_TRUE(waitForPeriods(3));
  const auto second = ramp(96'000);  // not played before the clear, however slow the machine
  ASSERT_TRUE(capturer_.addAudio({second.data(), 48000, 2, 48'000}));
  ASSERT_TRUE(capturer_.clearAudioBuffers());
  EXPECT_EQ(capturer_.getAudioBufferDuration(), milliseconds(0));
  ASSERT_TRUE(waitForPeriods(6));
  EXPECT_EQ(drained.value(), 2);
}

TEST_F(AudioCapturer, TakesExactlyItsCapacityAndNeverOverwrites) {
  ASSERT_TRUE(capturer_.init(48000, 1));
  ASSERT_TRUE(capturer_.start());
  breakLoop();
  const std::vector<std::int16_t> samples(kCapacity, 1);
  // The write index stands at 480, so that taking all of it needs room made at the front first.
  ASSERT_TRUE(capturer_.addAudio(mono(samples)));
  EXPECT_EQ(capturer_.getAudioBufferDuration(), milliseconds(600'000));
  EXPECT_FALSE(capturer_.addAudio({samples.data(), 48000, 1, 1}));
  EXPECT_TRUE(capturer_.stop());
  EXPECT_EQ(capturer_.getAudioBufferDuration(), milliseconds(0));

  // After the clear of `stop` nothing of it is left to be heard.
  ASSERT_TRUE(capturer_.start());
  const std::uint64_t begin = scripted_captured_total();
  ASSERT_TRUE(waitForPeriods(2));
  EXPECT_THAT(sound(begin), IsEmpty());
}

TEST_F(AudioCapturer, RefusesCountsThatNoBufferHolds) {
  ASSERT_TRUE(capturer_.init(48000, 2));
  ASSERT_TRUE(capturer_.start());
  const std::int16_t sample = 1;
  const std::size_t minus_one = static_cast<std::size_t>(-1);
  const std::size_t half = std::size_t{1} << 63;
  const struct {
    std::size_t channels;
    std::size_t frames;
  } kRows[] = {{1, minus_one}, {minus_one, 480}, {2, half}, {4, half / 2}, {1, kCapacity + 1}};
  for (const auto& row : kRows) {
    EXPECT_FALSE(capturer_.addAudio({&sample, 48000, row.channels, row.frames}));
  }
  EXPECT_EQ(capturer_.getAudioBufferDuration(), milliseconds(0));
}

TEST_F(AudioCapturer, KeepsTheOrderThroughACompaction) {
  LogCapture logs(log4cxx::Level::getWarn());
  ASSERT_TRUE(capturer_.init(48000, 1));
  ASSERT_TRUE(capturer_.start());
  const auto samples = ramp(kCapacity);
  const std::uint64_t begin = scripted_captured_total();
  ASSERT_TRUE(capturer_.addAudio(mono({samples.begin(), samples.end() - 480})));
  while (sound(begin).size() < 480) ASSERT_TRUE(waitForPeriods(1));
  // Would end exactly at the end of the buffer; even that makes room first.
  ASSERT_TRUE(capturer_.addAudio({samples.data(), 48000, 1, 480}));
  EXPECT_EQ(logs.count("WARN MRAudioCapturer::addAudio: Memmove to accomodate new data.. 480"), 1);
  ASSERT_TRUE(waitForPeriods(5));
  const auto heard = sound(begin);
  ASSERT_GE(heard.size(), 480U * 5);
  EXPECT_TRUE(std::equal(heard.begin(), heard.end(), samples.begin()));
}

TEST_F(AudioCapturer, ConsumesWhatTheLibraryRefuses) {
  LogCapture logs(log4cxx::Level::getWarn());
  ASSERT_TRUE(capturer_.init(48000, 1));
  ASSERT_TRUE(capturer_.start());
  scripted_fail(kWrite, 1234, -1);
  ASSERT_TRUE(capturer_.addAudio(mono(ramp(960))));
  ASSERT_TRUE(logs.await("WARN MRAudioCapturer task failed. Status:1234 OUT"));
  ASSERT_TRUE(waitForPeriods(3));
  EXPECT_EQ(capturer_.getAudioBufferDuration(), milliseconds(0));
  scripted_fail(kWrite, 0, 0);
  const auto samples = ramp(480, 7000);
  ASSERT_TRUE(capturer_.addAudio(mono(samples)));
  while (sound().empty()) ASSERT_TRUE(waitForPeriods(1));
  EXPECT_EQ(sound(), samples);
}

TEST_F(AudioCapturer, SurvivesItsLifeCycleBeingPlayedUnderTheFeed) {
  std::atomic<bool> ended{false};
  const auto samples = ramp(48'000);
  std::thread feeder([&] {
    while (!ended) {
      capturer_.addAudio(mono(samples));
      capturer_.clearAudioBuffers();
      capturer_.getAudioBufferDuration();
      capturer_.setOnAudioBuffersDrainedCallback([] {});
    }
  });
  // As when the library winds down by itself while the controller stops the device.
  std::thread library([&] {
    while (!ended) {
      capturer_.stop();
      capturer_.destroy();
    }
  });
  for (int round = 0; round < 15; ++round) {
    capturer_.init(48000, 1 + round % 2);
    capturer_.start();
    capturer_.stop();
    capturer_.destroy();
  }
  ended = true;
  feeder.join();
  library.join();
  capturer_.stop();
  capturer_.destroy();
  EXPECT_TRUE(capturer_.init(48000, 2));
  EXPECT_TRUE(capturer_.start());
  EXPECT_TRUE(waitForPeriods(1));
}

}  // namespace
