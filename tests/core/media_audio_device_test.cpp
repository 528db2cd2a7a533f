#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/log_capture.h"
#include "core/waiting.h"
#include "media/mr_audio_device.h"
#include "support/scripted_sarnet.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr MRAudioDeviceSettings kOther{.publisher = {.sample_rate = 16000, .channels = 1},
                                       .subscriber = {.sample_rate = 8000, .channels = 1}};

class AudioDevice : public testing::Test {
 protected:
  AudioDevice() { scripted_reset(); }
  ~AudioDevice() override { srn_set_audio_device(nullptr); }

  static std::vector<int> formats() {
    int rate[2] = {};
    int channels[2] = {};
    EXPECT_EQ(scripted_device_settings("get_capture_settings", &rate[0], &channels[0]), 1);
    EXPECT_EQ(scripted_device_settings("get_render_settings", &rate[1], &channels[1]), 1);
    return {rate[0], channels[0], rate[1], channels[1]};
  }

  Counter heard_;
  MRAudioDevice device_{[this](const MRAudioData&) { heard_.add(); }};
};

TEST_F(AudioDevice, TellsTheFormatsInForce) {
  EXPECT_EQ(scripted_device_user_data(), &device_);
  EXPECT_THAT(formats(), ElementsAre(48000, 2, 48000, 2));
  ASSERT_EQ(scripted_device_slot("init_capturer"), 1);
  device_.updateSettings(kOther);
  EXPECT_THAT(formats(), ElementsAre(16000, 1, 8000, 1));
  // What runs keeps its format: a period is still one of 48 kHz stereo.
  ASSERT_EQ(scripted_device_slot("start_capturer"), 1);
  const std::vector<std::int16_t> samples(std::size_t{960} * 100, 1);
  ASSERT_TRUE(device_.addAudio({samples.data(), 48000, 2, samples.size() / 2}));
  EXPECT_GT(device_.getAudioBufferDuration(), std::chrono::milliseconds(0));
  EXPECT_LE(device_.getAudioBufferDuration(), std::chrono::milliseconds(1000));
  EXPECT_TRUE(device_.clearAudioBuffers());
  EXPECT_EQ(device_.getAudioBufferDuration(), std::chrono::milliseconds(0));
}

TEST_F(AudioDevice, AnswersEverySlotByTheStateOfItsSide) {
  const struct {
    const char* slot;
    int result;
    std::vector<std::string> debug;  ///< lines of the device
  } kSteps[] = {
      {"init", 1, {"onInit: "}},
      {"is_capturer_initialized", 0, {"onIsCapturerInitialized: ", "onIsCapturerInitialized: 0"}},
      {"init_capturer", 1, {"onInitCapturer: "}},
      {"init_capturer", 0, {"onInitCapturer: "}},
      {"is_capturer_initialized", 1, {"onIsCapturerInitialized: ", "onIsCapturerInitialized: 1"}},
      {"is_capturer_started", 0, {"onIsCapturerStarted: "}},
      {"start_capturer",
       1,
       {"onStartCapturer: ", "onStartCapturer: No capturer started callback set! "}},
      {"is_capturer_started", 1, {"onIsCapturerStarted: "}},
      {"is_renderer_initialized", 0, {"onIsRenderInitialized: ", "onIsRendererInitialized: 0"}},
      {"start_renderer", 0, {"onStartRenderer: "}},
      {"init_renderer", 1, {"onInitRenderer: "}},
      {"is_renderer_initialized", 1, {"onIsRenderInitialized: ", "onIsRendererInitialized: 1"}},
      {"start_renderer", 1, {"onStartRenderer: "}},
      {"is_renderer_started", 1, {"onIsRenderStarted: "}},
      {"stop_renderer", 1, {"onStopRenderer: "}},
      {"is_renderer_started", 0, {"onIsRenderStarted: "}},
      {"destroy_renderer", 1, {"onDestroyRenderer: "}},
      {"destroy_renderer", 0, {"onDestroyRenderer: "}},
      {"stop_capturer", 1, {"onStopCapturer: "}},
      {"destroy_capturer", 1, {"onDestroyCapturer: "}},
      {"stop_capturer", 0, {"onStopCapturer: "}},
      {"get_capture_settings", 0, {}},
      {"get_render_settings", 0, {}},
      {"destroy", 1, {"onDestroy: "}},
      {"get_estimated_capture_delay", -1, {}},
      {"get_estimated_render_delay", -1, {}},
  };
  for (const auto& row : kSteps) {
    LogCapture logs(log4cxx::Level::getDebug());
    EXPECT_EQ(scripted_device_slot(row.slot), row.result) << row.slot;
    std::vector<std::string> expected;
    for (const auto& text : row.debug) {
      expected.push_back("DEBUG MRAudioDevice MRAudioDevice::" + text);
    }
    EXPECT_EQ(logs.lines("MRAudioDevice"), expected) << row.slot;
  }
  EXPECT_EQ(scripted_device_slot_with("start_capturer", nullptr), 0);
  EXPECT_EQ(scripted_device_slot_with("is_renderer_started", nullptr), 0);
}

TEST_F(AudioDevice, TellsOfAStartedCapturerAndOnlyOfThat) {
  LogCapture logs(log4cxx::Level::getDebug());
  int told = 0;
  device_.setOnCapturerStartedCallback([&] { ++told; });
  const std::string no_callback =
      "DEBUG MRAudioDevice MRAudioDevice::onStartCapturer: No capturer started callback set! ";
  EXPECT_EQ(scripted_device_slot("start_capturer"), 0);
  EXPECT_EQ(told, 0);
  EXPECT_THAT(logs.lines("MRAudioDevice"),
              ElementsAre("DEBUG MRAudioDevice MRAudioDevice::onStartCapturer: ",
                          "WARN MRAudioDevice MRAudioDevice::onStartCapturer: Failed to start the "
                          "capturer! ",
                          no_callback));
  logs.clear();
  EXPECT_EQ(scripted_device_slot("init_capturer"), 1);
  EXPECT_EQ(scripted_device_slot("start_capturer"), 1);
  EXPECT_EQ(told, 1);
  EXPECT_THAT(logs.lines("MRAudioDevice"), Not(Contains(no_callback)));

  // The callable is foreign to the library's C code, which no exception may reach.
  device_.stop();
  device_.setOnCapturerStartedCallback([] { throw std::runtime_error("no memory"); });
  EXPECT_EQ(scripted_device_slot("init_capturer"), 1);
  EXPECT_EQ(scripted_device_slot("start_capturer"), 0);
}

TEST_F(AudioDevice, StopWindsBothSidesDown) {
  Counter drained;
  device_.setOnAudioBuffersDrainedCallback([&] { drained.add(); });
  for (const char* slot : {"init_capturer", "start_capturer", "init_renderer", "start_renderer"}) {
    ASSERT_EQ(scripted_device_slot(slot), 1);
  }
  const std::vector<std::int16_t> samples(960, 1);
  ASSERT_TRUE(device_.addAudio({samples.data(), 48000, 2, 480}));
  EXPECT_TRUE(drained.waitFor(1));
  EXPECT_TRUE(heard_.waitFor(1));
  EXPECT_TRUE(device_.getAudioCapturer().isRunning());
  device_.stop();
  EXPECT_FALSE(device_.addAudio({samples.data(), 48000, 2, 480}));
  EXPECT_EQ(scripted_device_slot("is_capturer_initialized"), 0);
  EXPECT_EQ(scripted_device_slot("is_renderer_initialized"), 0);
  LogCapture logs(log4cxx::Level::getWarn());
  device_.stop();
  EXPECT_THAT(logs.lines(),
              ElementsAre("WARN MRAudioCapturer MRAudioCapturer::stop: Not initialized",
                          "WARN MRAudioRenderer MRAudioRenderer::stop: Not initialized",
                          "WARN MRAudioCapturer MRAudioCapturer::destroy: Not initialized",
                          "WARN MRAudioRenderer MRAudioRenderer::destroy: Not initialized"));
}

TEST_F(AudioDevice, StandsWhenTheLibraryRefusesIt) {
  scripted_fail("srn_set_audio_device", 1, 1);
  LogCapture logs(log4cxx::Level::getWarn());
  MRAudioDevice refused([](const MRAudioData&) {});
  EXPECT_THAT(logs.lines(),
              ElementsAre("ERROR MRAudioDevice Failed to set the global audio device."));
  EXPECT_FALSE(refused.getAudioCapturer().isInitialized());
}

TEST(AudioRecords, HaveTheirTextForm) {
  std::ostringstream text;
  text << kOther;
  EXPECT_EQ(text.str(),
            "MRAudioDeviceSettings: {publisher: MRAudioSettings: {sampleRate: 16000, numChannels: "
            "1}, subscriber: MRAudioSettings: {sampleRate: 8000, numChannels: 1}}");
}

TEST(AudioRecords, MeasureAndScanTheirBlock) {
  std::vector<std::int16_t> samples(960);
  const srn_audio_data record{samples.data(), 16, 48000, 2, 480};
  const srn_audio_data without_samples{nullptr, 16, 48000, 2, 480};
  EXPECT_EQ(MRAudioData(&record).number_of_frames_, 480U);
  EXPECT_EQ(MRAudioData(&record).bufferSize(), 1920U);
  EXPECT_TRUE(MRAudioData(&record).isBufferEmpty());
  EXPECT_TRUE(MRAudioData(&without_samples).isBufferEmpty());
  EXPECT_EQ(MRAudioData(static_cast<const srn_audio_data*>(nullptr)).bufferSize(), 0U);
  const MRAudioData too_many(samples.data(), 48000, 2, SIZE_MAX);
  EXPECT_EQ(too_many.bufferSize(), 0U);
  EXPECT_TRUE(too_many.isBufferEmpty());
  EXPECT_TRUE(MRAudioData(samples.data(), 48000, 2, 0).isBufferEmpty());
  for (const std::size_t loud : {0U, 1U, 479U, 959U}) {
    samples.assign(960, 0);
    samples[loud] = 256;  // one byte that is not 0
    EXPECT_FALSE(MRAudioData(&record).isBufferEmpty()) << loud;
  }
}

}  // namespace
