// The audio device: when its slots are called, what is mixed, recorded and carried between clocks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sarnet/sarnet_statistics.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "contract/harness.h"

namespace contract {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

std::string contents(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

int loudest(const std::vector<std::int16_t>& samples) {
  int peak = 0;
  for (const std::int16_t sample : samples) peak = std::max(peak, std::abs(int{sample}));
  return peak;
}

TEST(Device, IsDrivenInOrderForEachSession) {
  Device device;
  LibraryUse library;
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    // The second round is a program that stops both sides itself: the library's own orders fail.
    device.stop_answers = round == 0;
    const std::size_t before = device.log.lines().size();
    std::chrono::steady_clock::time_point since;
    Latch returned;
    Participant program;
    program.on_connected = [&] {
      // Not before on_connected has returned.
      std::this_thread::sleep_for(150ms);
      EXPECT_EQ(device.log.lines().size(), before);
      since = std::chrono::steady_clock::now();
      returned.open();
    };
    ASSERT_EQ(program.connect(), SRN_SUCCESS);
    ASSERT_TRUE(returned.wait());
    ASSERT_TRUE(device.log.await("init", 1 + 3 * round));
    EXPECT_GE(std::chrono::steady_clock::now() - since, 50ms) << "the program may still set up";
    ASSERT_TRUE(device.log.await("start_capturer", round + 1));
    std::vector<std::int16_t> buffer(960);
    EXPECT_EQ(srn_audio_device_read_render_data(buffer.data(), 480), 480U);
    EXPECT_EQ(srn_session_disconnect(program.handle), SRN_SUCCESS);
    EXPECT_EQ(srn_audio_device_read_render_data(buffer.data(), 480), 0U);
    EXPECT_EQ(srn_audio_device_write_capture_data(buffer.data(), 480), SRN_SUCCESS);
    ASSERT_TRUE(device.log.await("destroy", 3 * (round + 1)));
    auto events = device.log.lines();
    events.erase(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_THAT(events,
                ElementsAre("init", "render_settings", "init_renderer", "start_renderer",
                            "capture_settings", "init_capturer", "start_capturer", "stop_capturer",
                            "destroy_capturer", "stop_renderer", "destroy_renderer", "destroy"));
  }
}

TEST(Device, StaysUpWhileAnySessionIsConnectedAndEndsWithTheLibrary) {
  Device device;
  {
    LibraryUse library;
    Participant first;
    Participant second(empty_place());
    // Up for the second one, which counts only some time after its on_connected.
    ASSERT_TRUE(second.join());
    ASSERT_TRUE(device.log.await("start_capturer"));
    ASSERT_TRUE(first.join());
    first.remove();
    std::vector<std::int16_t> buffer(960);
    EXPECT_EQ(srn_audio_device_read_render_data(buffer.data(), 480), 480U);
    EXPECT_EQ(device.log.count("stop_renderer"), 0);
  }
  EXPECT_EQ(device.log.lines().back(), "destroy");
  EXPECT_EQ(device.log.count("start_renderer"), 1);
}

TEST(Device, WithAnUnusableFormatIsNotStarted) {
  Device device({192000, 2}, {48000, 3});
  LibraryUse library;
  srn_log_enable(SRN_LOG_LEVEL_DISABLED);
  Participant program;
  ASSERT_TRUE(program.join());
  ASSERT_TRUE(device.log.await("capture_settings"));
  program.remove();
  ASSERT_TRUE(device.log.await("destroy"));
  EXPECT_THAT(device.log.lines(),
              ElementsAre("init", "render_settings", "capture_settings", "destroy"));
  srn_log_enable(SRN_LOG_LEVEL_ERROR);
}

class EmbeddedAudio : public testing::TestWithParam<srn_audio_device_settings> {};

// The program hears the companion's tone in its own format, and publishes its own: what the other
// side gets is that tone, and the recording holds each sample.
TEST_P(EmbeddedAudio, IsMixedCarriedAndRecordedInTheDevicesFormat) {
  const int rate = GetParam().sampling_rate;
  const int channels = GetParam().number_of_channels;
  const auto frames = static_cast<std::size_t>(rate / 100);
  Device device({rate, channels}, {rate, channels});
  LibraryUse library;
  srn_statistics_reset();
  ScenarioFile scenario(R"({"record": "recording",
    "participants": [{"id": "peer", "audio": {"tone_hz": 1000, "level": 0.5}}]})");
  std::vector<std::int16_t> sent;
  {
    Participant program(scenario.place());
    Participant listener(scenario.place());
    ASSERT_TRUE(program.join());
    ASSERT_TRUE(listener.join());
    ASSERT_TRUE(device.log.await("start_capturer"));
    Receiver peer(program.wait_for_stream()->get());
    ASSERT_EQ(srn_session_subscribe(program.handle, peer.handle), SRN_SUCCESS);
    Sender sender({.video = false});
    ASSERT_TRUE(publish(program, sender));
    const auto stream = listener.wait_for_stream(2);
    Receiver receiver(stream->get());
    ASSERT_EQ(srn_session_subscribe(listener.handle, receiver.handle), SRN_SUCCESS);

    Sine sine(rate, channels, 440);
    std::atomic<int> mixed{0};  // the loudest sample of the mix
    {
      const Periodic periodic(10ms, [&] {
        const auto block = sine.next(frames);
        sent.insert(sent.end(), block.begin(), block.end());
        srn_audio_device_write_capture_data(block.data(), frames);
        std::vector<std::int16_t> heard(frames * static_cast<std::size_t>(channels));
        srn_audio_device_read_render_data(heard.data(), frames);
        mixed = std::max(mixed.load(), loudest(heard));
      });
      // The device is the process's: both sessions' subscriptions are in its mix, and the peaks of
      // both tones meet sooner or later.
      EXPECT_TRUE(eventually([&] {
        const auto samples = receiver.samples();
        return samples.size() > 48000 && loudest(samples) > 7000 && mixed > 16383 + 7100;
      })) << mixed;
    }
    EXPECT_LE(loudest(receiver.samples()), 8800);
    EXPECT_LE(mixed, 16383 + 8900);
  }
  srn_destroy();  // completes the recording

  const std::string wav = contents(scenario.folder() / "recording" / "audio-1.wav");
  const std::string bytes(reinterpret_cast<const char*>(sent.data()), sent.size() * 2);
  ASSERT_GE(wav.size(), bytes.size());
  EXPECT_TRUE(wav.ends_with(bytes)) << "each sample, in the device's format";
  const std::string log = contents(scenario.folder() / "recording" / "events.jsonl");
  EXPECT_THAT(log, HasSubstr("\"audio_frames\":" +
                             std::to_string(sent.size() / static_cast<std::size_t>(channels))));
  EXPECT_THAT(log, HasSubstr("\"audio_frames_lost\":0"));
  EXPECT_THAT(log, HasSubstr("\"event\":\"closed\""));
  srn_statistics figures{};
  figures.size = sizeof figures;
  srn_statistics_get(&figures);
  EXPECT_EQ(figures.capture_frames_written * static_cast<std::size_t>(channels), sent.size());
}

INSTANTIATE_TEST_SUITE_P(Formats, EmbeddedAudio,
                         testing::Values(srn_audio_device_settings{48000, 2},
                                         srn_audio_device_settings{44100, 1},
                                         srn_audio_device_settings{8000, 1}));

TEST(EmbeddedDevice, RecordsPicturesInOrderWithRepeats) {
  LibraryUse library;
  ScenarioFile scenario(R"({"record": "recording"})");
  std::string frames;
  {
    Participant program(scenario.place());
    ASSERT_TRUE(program.join());
    Sender sender({.audio = false, .fps = 25});
    ASSERT_TRUE(publish(program, sender));
    for (const int shade : {30, 40, 40, 50}) {
      const std::vector<std::uint8_t> bytes(64 * 48 * 3 / 2, static_cast<std::uint8_t>(shade));
      ASSERT_EQ(sender.provide(64, 48, bytes), SRN_SUCCESS);
      frames += "FRAME\n" + std::string(bytes.begin(), bytes.end());
    }
  }
  srn_destroy();
  const std::string film = contents(scenario.folder() / "recording" / "video-1.y4m");
  EXPECT_TRUE(film.starts_with("YUV4MPEG2 W64 H48 F25:1 ")) << film.substr(0, 60);
  EXPECT_TRUE(film.ends_with(frames));
  // They came faster than 25 a second: the log has a time for each.
  const std::string log = contents(scenario.folder() / "recording" / "events.jsonl");
  EXPECT_THAT(log, HasSubstr("\"picture\":0,"));
  EXPECT_THAT(log, HasSubstr("\"picture\":3,"));
}

}  // namespace
}  // namespace contract
