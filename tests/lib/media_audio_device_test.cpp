#include <cstdint>
#include <sstream>
#include <stdexcept>

#include "lib_test.h"
#include "media/mr_audio_device.h"

using namespace lib_test;
using testing::ElementsAre;

namespace {

class AudioDevice : public ScriptedTest {
 protected:
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
  device_.updateSettings({.publisher = {.sample_rate = 16000, .channels = 1},
                          .subscriber = {.sample_rate = 8000, .channels = 1}});
  EXPECT_THAT(formats(), ElementsAre(16000, 1, 8000, 1));
  // What runs keeps its format: a period is still one of 48 kHz stereo.
  ASSERT_EQ(scripted_device_slot("start_capturer"), 1);
  const std::vector<std::int16_t> samples(std::size_t{960} * 1000, 1);
  ASSERT_TRUE(device_.addAudio({samples.data(), 48000, 2, samples.size() / 2}));
  EXPECT_GT(device_.getAudioBufferDuration(), std::chrono::milliseconds(0));
  EXPECT_LE(device_.getAudioBufferDuration(), std::chrono::milliseconds(10'000));
  EXPECT_TRUE(device_.clearAudioBuffers());
  EXPECT_EQ(device_.getAudioBufferDuration(), std::chrono::milliseconds(0));
}

TEST_F(AudioDevice, AnswersEverySlotByTheStateOfItsSide) {
  // The slots in this order, and what they answer.
  std::istringstream steps(
      "init 1 is_capturer_initialized 0 init_capturer 1 init_capturer 0 is_capturer_initialized 1 "
      "is_capturer_started 0 start_capturer 1 is_capturer_started 1 is_renderer_initialized 0 "
      "start_renderer 0 init_renderer 1 is_renderer_initialized 1 start_renderer 1 "
      "is_renderer_started 1 stop_renderer 1 is_renderer_started 0 destroy_renderer 1 "
      "destroy_renderer 0 stop_capturer 1 destroy_capturer 1 stop_capturer 0 "
      "get_capture_settings 0 get_render_settings 0 destroy 1 get_estimated_capture_delay -1 "
      "get_estimated_render_delay -1");
  std::string slot;
  for (int answer = 0; steps >> slot >> answer;) {
    EXPECT_EQ(scripted_device_slot(slot.c_str()), answer) << slot;
  }
  EXPECT_EQ(scripted_device_slot_with("start_capturer", nullptr), 0);
  EXPECT_EQ(scripted_device_slot_with("is_renderer_started", nullptr), 0);
}

TEST_F(AudioDevice, LetsNoExceptionIntoTheLibrary) {
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
  EXPECT_TRUE(drained.await(1));
  EXPECT_TRUE(heard_.await(1));
  EXPECT_TRUE(device_.getAudioCapturer().isRunning());
  device_.stop();
  EXPECT_FALSE(device_.addAudio({samples.data(), 48000, 2, 480}));
  EXPECT_EQ(scripted_device_slot("is_capturer_initialized"), 0);
  EXPECT_EQ(scripted_device_slot("is_renderer_initialized"), 0);
}

TEST(AudioRecords, MeasureAndScanTheirBlock) {
  std::vector<std::int16_t> samples(960);
  const srn_audio_data record{samples.data(), 16, 48000, 2, 480};
  const srn_audio_data without_samples{nullptr, 16, 48000, 2, 480};
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
