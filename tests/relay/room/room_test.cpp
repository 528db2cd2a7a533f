// Programs in a room of a real server: they meet, hear and see each other, and leave nothing
// behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numbers>
#include <span>
#include <thread>

#include "contract/harness.h"

namespace contract {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

std::string setting(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}
const std::string& host() {
  static const std::string value = setting("SARNET_TEST_HOST");
  return value;
}
std::string room() { return setting("SARNET_TEST_ROOM"); }
std::string token() { return setting("SARNET_TEST_TOKEN"); }

std::int64_t ms_since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

long entries(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder),
                       std::filesystem::directory_iterator());
}

long resident_pages() {
  std::ifstream file("/proc/self/statm");
  long total = 0;
  long resident = 0;
  file >> total >> resident;
  return resident;
}

class Periodic {
 public:
  Periodic(std::chrono::microseconds period, std::function<void()> action)
      : thread_([this, period, action = std::move(action)] {
          for (auto due = Clock::now(); !stop_; std::this_thread::sleep_until(due += period)) {
            action();
          }
        }) {}
  ~Periodic() {
    stop_ = true;
    thread_.join();
  }
  Periodic(const Periodic&) = delete;
  Periodic& operator=(const Periodic&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A tone of 1 kHz into the device and a picture, bright on the left, into the capturer, until it
// goes.
class Program {
 public:
  explicit Program(Sender& sender)
      : audio_(10ms,
               [this] {
                 for (double& phase = phase_; std::int16_t & sample : block_) {
                   sample = static_cast<std::int16_t>(8000 * std::sin(phase));
                   phase += 2 * std::numbers::pi * 1000 / 48000;
                 }
                 srn_audio_device_write_capture_data(block_.data(), block_.size());
               }),
        video_(33ms, [this, &sender] { sender.provide(kWidth, kHeight, picture_); }) {}

  static constexpr int kWidth = 320;
  static constexpr int kHeight = 240;

 private:
  static std::vector<std::uint8_t> paint() {
    std::vector<std::uint8_t> bytes(kWidth * kHeight * 3 / 2, 128);
    for (int i = 0; i < kWidth * kHeight; ++i) {
      bytes[static_cast<std::size_t>(i)] = i % kWidth < kWidth / 2 ? 200 : 40;
    }
    return bytes;
  }

  double phase_ = 0;
  std::vector<std::int16_t> block_ = std::vector<std::int16_t>(480);
  const std::vector<std::uint8_t> picture_ = paint();
  Periodic audio_;
  Periodic video_;
};

// Whether the last tenth of a second held a loud tone of about 1 kHz: its rate may still be drawn
// by a few per cent towards the device's.
bool holds_the_tone(const std::vector<std::int16_t>& stereo) {
  constexpr std::size_t kSamples = 2 * 4800;
  if (stereo.size() < kSamples) return false;
  const std::span<const std::int16_t> last(stereo.end() - kSamples, stereo.end());
  int crossings = 0;
  int peak = 0;
  for (std::size_t i = 2; i < last.size(); i += 2) {
    crossings += (last[i - 2] < 0) != (last[i] < 0) ? 1 : 0;
    peak = std::max(peak, std::abs(static_cast<int>(last[i])));
  }
  return peak > 4000 && crossings > 190 && crossings < 210;
}

bool shows_the_picture(const Picture& picture) {
  if (picture.width != Program::kWidth || picture.height != Program::kHeight) return false;
  const std::size_t row = 100 * Program::kWidth;
  return std::abs(picture.bytes[row + 80] - 200) < 12 &&
         std::abs(picture.bytes[row + 240] - 40) < 12;
}

class Room : public testing::Test {
 protected:
  void SetUp() override {
    if (!setting("SARNET_TEST_LOG").empty()) srn_log_enable(SRN_LOG_LEVEL_DEBUG);
    if (host().empty()) GTEST_SKIP() << "SARNET_TEST_HOST names no server";
  }
};

TEST_F(Room, ProgramsMeetHearAndSeeEachOtherAndPart) {
  Device device({48000, 1}, {48000, 2});
  LibraryUse library;
  auto speaker = std::make_unique<Participant>(room());
  Participant early(room());
  ASSERT_TRUE(early.join(host(), token()));
  ASSERT_TRUE(speaker->join(host(), token()));
  ASSERT_TRUE(early.log.await("connection+"));

  Sender sender({});
  const auto published = Clock::now();
  ASSERT_EQ(srn_session_publish(speaker->handle, sender.handle), SRN_SUCCESS);
  ASSERT_TRUE(sender.log.await("created"));
  std::cout << "published after " << ms_since(published) << " ms\n";
  auto program = std::make_unique<Program>(sender);
  Participant late(room());
  ASSERT_TRUE(late.join(host(), token()));

  for (Participant* listener : {&early, &late}) {
    const auto stream = listener->wait_for_stream();
    ASSERT_TRUE(stream);
    EXPECT_EQ(sender.log.lines().back(),
              std::string("created ") + srn_stream_get_id(stream->get()));
    Receiver receiver(stream->get());
    const auto subscribed = Clock::now();
    std::atomic<std::int64_t> first_audio{-1};
    std::atomic<std::int64_t> first_picture{-1};
    receiver.on_audio = [&] {
      if (first_audio < 0) first_audio = ms_since(subscribed);
    };
    receiver.on_picture = [&] {
      if (first_picture < 0) first_picture = ms_since(subscribed);
    };
    ASSERT_EQ(srn_session_subscribe(listener->handle, receiver.handle), SRN_SUCCESS);
    EXPECT_TRUE(receiver.log.await("connected"));
    EXPECT_TRUE(eventually([&] { return holds_the_tone(receiver.samples()); }));
    EXPECT_TRUE(eventually([&] { return shows_the_picture(receiver.last_picture()); }));
    std::cout << "first audio after " << first_audio << " ms, first picture after " << first_picture
              << " ms\n";
    EXPECT_EQ(srn_session_unsubscribe(listener->handle, receiver.handle), SRN_SUCCESS);
  }

  program.reset();
  speaker.reset();
  ASSERT_TRUE(early.log.await("connection-"));
  ASSERT_TRUE(late.log.await("connection-"));
  EXPECT_THAT(early.log.lines(), ElementsAre("connected", StartsWith("connection+"),
                                             StartsWith("stream+"), StartsWith("connection+"),
                                             StartsWith("stream-"), StartsWith("connection-")));
  EXPECT_THAT(late.log.lines(),
              ElementsAre("connected", StartsWith("connection+"), StartsWith("connection+"),
                          StartsWith("stream+"), StartsWith("stream-"), StartsWith("connection-")));
}

TEST_F(Room, AnAudienceSeesAStreamComeAndGoTwiceAndTwoAtOnce) {
  LibraryUse library;
  Participant speaker(room());
  Participant listener(room());
  ASSERT_TRUE(speaker.join(host(), token()));
  ASSERT_TRUE(listener.join(host(), token()));
  Sender sender({.audio = false});
  Sender second({.audio = false});
  for (long round = 1; round <= 2; ++round) {
    ASSERT_EQ(srn_session_publish(speaker.handle, sender.handle), SRN_SUCCESS);
    ASSERT_TRUE(listener.log.await("stream+", round));
    ASSERT_TRUE(sender.log.await("created", round));
    ASSERT_EQ(srn_session_unpublish(speaker.handle, sender.handle), SRN_SUCCESS);
    ASSERT_TRUE(listener.log.await("stream-", round));
  }
  ASSERT_EQ(srn_session_publish(speaker.handle, sender.handle), SRN_SUCCESS);
  ASSERT_EQ(srn_session_publish(speaker.handle, second.handle), SRN_SUCCESS);
  ASSERT_TRUE(listener.log.await("stream+", 4));
  srn_session_disconnect(speaker.handle);
  ASSERT_TRUE(listener.log.await("stream-", 4));
  ASSERT_TRUE(listener.log.await("connection-"));
  EXPECT_EQ(listener.log.count("connection+"), 1) << "a further stream is no connection";
}

TEST_F(Room, LeavesNothingBehind) {
  const std::string asked = setting("SARNET_TEST_ROUNDS");
  const int rounds = asked.empty() ? 12 : std::stoi(asked);
  long threads = 0;
  long files = 0;
  for (int round = 0; round < rounds; ++round) {
    {
      LibraryUse library;
      Participant speaker(room());
      Participant listener(room());
      ASSERT_TRUE(speaker.join(host(), token()));
      ASSERT_TRUE(listener.join(host(), token()));
      Sender sender({});
      ASSERT_EQ(srn_session_publish(speaker.handle, sender.handle), SRN_SUCCESS);
      const auto stream = listener.wait_for_stream();
      ASSERT_TRUE(stream);
      Receiver receiver(stream->get());
      ASSERT_EQ(srn_session_subscribe(listener.handle, receiver.handle), SRN_SUCCESS);
      ASSERT_TRUE(receiver.log.await("connected"));
      const auto leaving = Clock::now();
      srn_session_disconnect(speaker.handle);
      srn_session_disconnect(listener.handle);
      ASSERT_EQ(srn_destroy(), SRN_SUCCESS);
      const auto took = ms_since(leaving);
      EXPECT_LT(took, 2000);
      if (round % 4 == 3) {
        std::cout << "left after " << took << " ms, resident pages " << resident_pages() << '\n';
      }
    }
    if (round != 3) continue;
    threads = entries("/proc/self/task");
    files = entries("/proc/self/fd");
  }
  EXPECT_LE(entries("/proc/self/task"), threads);
  EXPECT_LE(entries("/proc/self/fd"), files);
}

TEST_F(Room, RefusesTokensThatAreNotForIt) {
  LibraryUse library;
  const std::string good = token();
  const std::string request_token = good.substr(0, good.find(' '));
  const std::string cases[] = {"", "1,janus,janus.plugin.videoroom:AAAA", request_token,
                               request_token + " 9999999999,janus.plugin.videoroom,room=x:AAAA"};
  for (const std::string& wrong : cases) {
    Participant program(room());
    ASSERT_EQ(program.connect(host(), wrong), SRN_SUCCESS);
    ASSERT_TRUE(program.log.await("error 1004")) << wrong;
    EXPECT_EQ(program.log.lines().size(), 1U);
    EXPECT_THAT(program.log.lines().front(), HasSubstr("The server refused"));
  }
}

TEST_F(Room, TrustsOnlyTheAuthoritiesThatItIsGiven) {
  LibraryUse library;
  Participant program(room());
  ASSERT_EQ(program.connect(setting("SARNET_TEST_TLS_HOST"), token()), SRN_SUCCESS);
  ASSERT_TRUE(program.log.await("error 1006 Cannot connect to wss://"));
  EXPECT_THAT(program.log.lines().front(), HasSubstr("certificate"));

  setenv("SARNET_RELAY_CA_FILE", setting("SARNET_TEST_CA_FILE").c_str(), 1);
  Participant trusting(room());
  EXPECT_TRUE(trusting.join(setting("SARNET_TEST_TLS_HOST"), token()));
  unsetenv("SARNET_RELAY_CA_FILE");
}

}  // namespace
}  // namespace contract
