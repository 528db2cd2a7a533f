#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <numbers>
#include <random>
#include <span>
#include <stdexcept>
#include <thread>
#include <vector>

#include "audio/audio_mixer.h"
#include "audio/audio_resampler.h"
#include "audio/drift_buffer.h"

namespace sarnet {
namespace {

constexpr double kHertz = 440;
constexpr double kAmplitude = 10000;

double sine_at(double seconds) {
  return kAmplitude * std::sin(2 * std::numbers::pi * kHertz * seconds);
}

// The largest step between neighbouring samples of the sine.
double steepest(int rate) { return kAmplitude * 2 * std::numbers::pi * kHertz / rate; }

std::vector<std::int16_t> sine(AudioFormat format, std::size_t frames, std::size_t start = 0) {
  std::vector<std::int16_t> samples;
  for (std::size_t i = 0; i < frames; ++i) {
    const double value = sine_at(static_cast<double>(start + i) / format.rate);
    samples.insert(samples.end(), static_cast<std::size_t>(format.channels),
                   static_cast<std::int16_t>(std::lround(value)));
  }
  return samples;
}

struct Conversion {
  AudioFormat from;
  AudioFormat to;
  double correction = 1;
};

class ResamplerTest : public testing::TestWithParam<Conversion> {};

// Length, level, phase and freedom from clicks at once: every sample is compared with the ideal
// sine.
TEST_P(ResamplerTest, GivesTheSameSineOfTheRightLength) {
  const auto [from, to, correction] = GetParam();
  AudioResampler resampler(from, to);
  resampler.set_correction(correction);
  const std::vector<std::int16_t> input = sine(from, static_cast<std::size_t>(from.rate));
  const auto in_channels = static_cast<std::size_t>(from.channels);
  const auto out_channels = static_cast<std::size_t>(to.channels);

  std::vector<std::int16_t> output(static_cast<std::size_t>(to.rate) * 3);
  std::size_t made = 0;
  std::mt19937 random(7);
  for (std::size_t position = 0; position < input.size();) {
    const std::size_t frames = 1 + random() % 700;
    const auto block =
        std::span(input).subspan(position, std::min(frames * in_channels, input.size() - position));
    const auto result = resampler.process(block, std::span(output).subspan(made * out_channels));
    ASSERT_EQ(result.consumed, block.size() / in_channels);
    position += block.size();
    made += result.produced;
  }

  // What is held back, up to 3 ms, comes with later input.
  EXPECT_NEAR(static_cast<double>(made), to.rate * correction, to.rate * 0.003 + 2);
  const std::size_t edge = static_cast<std::size_t>(to.rate) / 100;
  for (std::size_t i = edge; i + edge < made; ++i) {
    const double ideal = sine_at(static_cast<double>(i) / to.rate / correction);
    ASSERT_NEAR(output[i * out_channels], ideal, kAmplitude * 0.01) << "frame " << i;
    ASSERT_EQ(output[i * out_channels], output[(i + 1) * out_channels - 1]) << "frame " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, ResamplerTest,
                         testing::Values(Conversion{{8000, 1}, {48000, 2}},
                                         Conversion{{48000, 2}, {8000, 1}},
                                         Conversion{{44100, 2}, {48000, 2}},
                                         Conversion{{48000, 1}, {22050, 2}},
                                         Conversion{{48000, 1}, {48000, 1}, 1.02}));

TEST(Resampler, PassesEqualFormatsBitExactAndMixesChannelsByTheirMean) {
  std::mt19937 random(1);
  std::vector<std::int16_t> noise(960);
  for (auto& sample : noise) sample = static_cast<std::int16_t>(random());
  std::vector<std::int16_t> output(noise.size());
  AudioResampler same({48000, 2}, {48000, 2});
  EXPECT_EQ(same.process(noise, output).produced, noise.size() / 2);
  EXPECT_EQ(output, noise);

  AudioResampler down({48000, 2}, {48000, 1});
  const std::vector<std::int16_t> pairs{32767, 32767, -32768, -32768, 100, -300, 0, 1};
  EXPECT_EQ(down.process(pairs, output).produced, 4U);
  EXPECT_EQ(std::vector<std::int16_t>(output.begin(), output.begin() + 4),
            (std::vector<std::int16_t>{32767, -32768, -100, 0}));
}

TEST(Resampler, RefusesFormatsOutOfRange) {
  for (const AudioFormat bad : {AudioFormat{7999, 1}, AudioFormat{48001, 1}, AudioFormat{48000, 0},
                                AudioFormat{48000, 3}, AudioFormat{-48000, 1}}) {
    EXPECT_THROW(AudioResampler(bad, AudioFormat{}), std::invalid_argument);
    EXPECT_THROW(DriftBuffer(AudioFormat{}, bad), std::invalid_argument);
  }
}

TEST(Mixer, SaturatesOnlyTheSum) {
  AudioMixer mixer(4);
  std::vector<std::int16_t> output(5, 99);
  mixer.start(4);
  mixer.add(std::vector<std::int16_t>{30000, -30000, 1, 5});
  mixer.add(std::vector<std::int16_t>{30000, -30000, 2});
  mixer.add(std::vector<std::int16_t>{-30000, -30000, 3, 0, 77});
  mixer.finish(output);
  EXPECT_EQ(output, (std::vector<std::int16_t>{30000, -32768, 6, 5, 0}));
  mixer.start(2);
  mixer.finish(output);
  EXPECT_EQ(output, std::vector<std::int16_t>(5, 0));
}

// A writer and a reader on a simulated time line, each with its own clock and period.
class TimeLine {
 public:
  TimeLine(AudioFormat writer, AudioFormat reader, double drift, double jitter_ms,
           int target_ms = DriftBuffer::kDefaultTargetMs)
      : buffer(writer, reader, target_ms),
        writer_(writer),
        reader_(reader),
        drift_(drift),
        jitter_(jitter_ms) {}

  void run(int periods, bool writing = true) {
    std::vector<std::int16_t> block(
        static_cast<std::size_t>(reader_.period_frames() * reader_.channels));
    for (int i = 0; i < periods; ++i, ++reads_) {
      const double now = reads_ * 10.0 + 2.5;
      while (next_write() <= now) {
        delay_ = jitter_ * static_cast<double>(random_() % 1000) / 1000.0;
        ++writes_;
        if (writing) {
          const auto frames = static_cast<std::size_t>(writer_.period_frames());
          buffer.write(sine(writer_, frames, written));
          written += frames;
        }
      }
      buffer.read(block);
      heard.insert(heard.end(), block.begin(), block.end());
      longest_queue = std::max(longest_queue, buffer.counters().queued_ms);
    }
  }

  void calm_down() { jitter_ = 0; }

  // The largest step from sample to sample, once the sound has begun.
  int largest_step() const {
    int largest = 0;
    for (std::size_t i = 4800; i < heard.size(); ++i) {
      largest = std::max(largest, std::abs(heard[i] - heard[i - 1]));
    }
    return largest;
  }

  DriftBuffer buffer;
  std::vector<std::int16_t> heard;
  std::size_t written = 0;  // frames
  double longest_queue = 0;

 private:
  double next_write() const { return static_cast<double>(writes_) * 10.0 / (1 + drift_) + delay_; }

  const AudioFormat writer_;
  const AudioFormat reader_;
  const double drift_;
  double jitter_;
  double delay_ = 0;
  int writes_ = 0;
  int reads_ = 0;
  std::mt19937 random_{3};
};

struct Drift {
  double drift;
  double jitter_ms;
  int writer_rate;
};

class DriftTest : public testing::TestWithParam<Drift> {};

TEST_P(DriftTest, IsAbsorbedWithoutClicksAndWithBoundedDelay) {
  const auto [drift, jitter, rate] = GetParam();
  TimeLine line({rate, 1}, {48000, 1}, drift, jitter);
  line.run(3000);
  const auto counters = line.buffer.counters();
  EXPECT_EQ(counters.underruns, 0U);
  EXPECT_EQ(counters.frames_dropped, 0U);
  EXPECT_LE(line.longest_queue, 90);
  EXPECT_NEAR(counters.queued_ms, DriftBuffer::kDefaultTargetMs, 20);
  EXPECT_NEAR(counters.correction, 1 / (1 + drift), 0.003);
  // A sine that is bent by 4 % at most is 4 % steeper.
  EXPECT_LE(line.largest_step(), steepest(48000) * 1.045 + 2);
}

INSTANTIATE_TEST_SUITE_P(Clocks, DriftTest,
                         testing::Values(Drift{0.025, 6, 48000}, Drift{-0.025, 6, 48000},
                                         Drift{0.002, 0, 48000}, Drift{-0.02, 3, 44100},
                                         Drift{0, 0, 8000}));

TEST(DriftBuffer, PassesEverySampleUnchangedWhenTheClocksAgree) {
  TimeLine line({48000, 2}, {48000, 2}, 0, 6);
  line.run(500);
  const std::vector<std::int16_t> sent = sine({48000, 2}, line.written);
  const std::size_t silent = line.buffer.counters().frames_silent * 2;
  ASSERT_GT(silent, 0U);
  ASSERT_LT(silent, 960U * 8);
  EXPECT_TRUE(std::equal(line.heard.begin() + static_cast<std::ptrdiff_t>(silent), line.heard.end(),
                         sent.begin()));
}

TEST(DriftBuffer, PassesSamplesUnchangedAgainOnceADisturbanceIsOver) {
  TimeLine line({48000, 1}, {48000, 1}, 0, 0);
  line.run(100);
  line.buffer.write(sine({48000, 1}, 1440, line.written));  // 30 ms too many
  line.written += 1440;
  line.run(300);
  EXPECT_NE(line.buffer.counters().correction, 1);
  line.run(6000);
  EXPECT_EQ(line.buffer.counters().correction, 1);
  EXPECT_NEAR(line.buffer.counters().queued_ms, DriftBuffer::kDefaultTargetMs, 12);
  EXPECT_EQ(line.buffer.counters().frames_dropped, 0U);
  const std::vector<std::int16_t> sent = sine({48000, 1}, line.written);
  const std::span last = std::span(line.heard).last(4800);
  EXPECT_FALSE(std::ranges::search(sent, last).empty());
  EXPECT_LE(line.largest_step(), steepest(48000) * 1.045 + 2);
}

TEST(DriftBuffer, FadesWhenTheWriterStopsAndComesBack) {
  for (const double drift : {0.0, 0.02}) {  // untouched and interpolated sound
    TimeLine line({48000, 1}, {48000, 1}, drift, 0);
    line.run(200);
    line.run(40, false);
    EXPECT_TRUE(std::all_of(line.heard.end() - 480, line.heard.end(),
                            [](std::int16_t sample) { return sample == 0; }));
    EXPECT_EQ(line.buffer.counters().underruns, 1U);
    EXPECT_EQ(line.buffer.counters().queued_ms, 0);
    line.run(200);
    EXPECT_EQ(line.buffer.counters().underruns, 1U);
    EXPECT_EQ(line.buffer.counters().frames_dropped, 0U);
    EXPECT_LE(line.largest_step(), steepest(48000) * 1.045 + 2) << drift;
    EXPECT_GT(*std::max_element(line.heard.end() - 480, line.heard.end()), 0.9 * kAmplitude);
  }
}

TEST(DriftBuffer, LengthensAShortQueueForALateWriterUntilItIsPunctualAndNotForOneThatPauses) {
  struct Case {
    double drift;
    double jitter_ms;
    bool pauses;
    std::size_t most_underruns;
    double queued_ms;
  };
  for (const Case& each :
       {Case{0, 0, false, 0, 10}, Case{0.02, 3, false, 0, 10}, Case{0, 0, true, 20, 10},
        Case{0, 25, false, 3, 30}, Case{-0.02, 3, false, 3, 30}}) {
    TimeLine line({48000, 1}, {48000, 1}, each.drift, each.jitter_ms, 5);
    for (int i = 0; i < 20; ++i) {
      line.run(100);
      if (each.pauses) line.run(4, false);
    }
    EXPECT_LE(line.buffer.counters().underruns, each.most_underruns) << each.jitter_ms;
    EXPECT_NEAR(line.buffer.counters().queued_ms, each.queued_ms, 12) << each.jitter_ms;
    line.calm_down();
    line.run(1000);
    EXPECT_NEAR(line.buffer.counters().queued_ms, 10, 10) << each.jitter_ms;
  }
}

// A stream of packets of 20 ms, some of which are lost: for each the receiver waits before it fills
// the gap, and then gives out at once what came meanwhile.
TEST(DriftBuffer, FollowsTheBurstsOfALossyStreamAndComesBack) {
  constexpr int kLossySeconds = 60;
  struct Case {
    double loss;
    int wait_ms;
    int target_ms;
    double whole;
  };
  for (const Case& each :
       {Case{0.03, 40, 40, 0.995}, Case{0.10, 40, 40, 0.98}, Case{0.10, 90, 12, 0.98}}) {
    DriftBuffer buffer({48000, 1}, {48000, 1}, each.target_ms);
    std::mt19937 random(7);
    std::vector<std::int16_t> block(480);
    const std::vector<std::int16_t> packet(960, 1000);
    std::vector<int> due;  // when each packet is given out, or what fills its gap
    std::size_t given = 0;
    std::uint64_t silent = 0;
    for (int ms = 0; ms < (kLossySeconds + 10) * 1000; ms += 10) {
      if (ms % 20 == 0) {
        const bool lost =
            ms < kLossySeconds * 1000 && static_cast<double>(random() % 1000) < each.loss * 1000;
        due.push_back(std::max(due.empty() ? 0 : due.back(), lost ? ms + each.wait_ms : ms));
      }
      for (; given < due.size() && due[given] <= ms; ++given) buffer.write(packet);
      buffer.read(block);
      if (ms == 1000) silent = buffer.counters().frames_silent;
      if (ms == kLossySeconds * 1000) {
        const double lost = static_cast<double>(buffer.counters().frames_silent - silent);
        EXPECT_LE(lost / ((kLossySeconds - 1) * 48000.0), 1 - each.whole) << each.loss;
        EXPECT_LE(buffer.counters().queued_ms, 190);
      }
    }
    EXPECT_LE(buffer.counters().queued_ms, each.target_ms + 20) << each.loss;
  }
}

TEST(DriftBuffer, PlaysASoundThatIsShorterThanTheTarget) {
  DriftBuffer buffer({16000, 1}, {16000, 1});
  buffer.write(std::vector<std::int16_t>(320, 1234));
  std::vector<std::int16_t> heard(1600);
  for (int i = 0; i < 10; ++i) {
    buffer.read(std::span(heard).subspan(static_cast<std::size_t>(i) * 160, 160));
  }
  EXPECT_EQ(std::count(heard.begin(), heard.end(), 1234), 320);
}

TEST(DriftBuffer, DropsTheOldestOfABurstWithoutAClick) {
  TimeLine line({48000, 1}, {48000, 1}, 0, 0);
  line.run(50);
  const std::size_t burst = 48000 / 4;
  line.buffer.write(sine({48000, 1}, burst, line.written));
  line.written += burst;
  line.run(50);
  const auto counters = line.buffer.counters();
  EXPECT_NEAR(static_cast<double>(counters.frames_dropped), static_cast<double>(burst), 480);
  EXPECT_EQ(counters.underruns, 0U);
  EXPECT_LE(counters.queued_ms, 60);
  // The joint crosses over from one place of the sine to another within 5 ms.
  EXPECT_LE(line.largest_step(), steepest(48000) + 2 * kAmplitude / 240 + 2);
}

TEST(DriftBuffer, StartsAfreshWhenTheReaderComesBack) {
  DriftBuffer buffer({48000, 1}, {48000, 1});
  std::vector<std::int16_t> block(480);
  const auto step = [&](std::int16_t value, bool reading) {
    buffer.write(std::vector<std::int16_t>(480, value));
    if (reading) buffer.read(block);
  };
  for (int i = 0; i < 20; ++i) step(1000, true);
  for (int i = 0; i < 200; ++i) step(2000, false);
  for (int i = 0; i < 10; ++i) step(3000, true);
  EXPECT_EQ(block, std::vector<std::int16_t>(480, 3000));
  EXPECT_LE(buffer.counters().queued_ms, 60);
  EXPECT_GT(buffer.counters().frames_dropped, 48000U);
}

TEST(DriftBuffer, LetsWriterAndReaderRunAtOnce) {
  DriftBuffer buffer({16000, 1}, {16000, 1});
  const std::vector<std::int16_t> block(160, 1000);
  std::jthread writer([&] {
    for (int i = 0; i < 20000; ++i) buffer.write(block);
  });
  std::vector<std::int16_t> heard(160);
  bool in_range = true;
  for (int i = 0; i < 20000; ++i) {
    buffer.read(heard);
    in_range &= std::all_of(heard.begin(), heard.end(),
                            [](std::int16_t sample) { return sample >= 0 && sample <= 1010; });
  }
  EXPECT_TRUE(in_range);
}

}  // namespace
}  // namespace sarnet
