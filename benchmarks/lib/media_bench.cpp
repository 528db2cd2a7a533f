#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <vector>

#include "media/memory_pool.h"
#include "media/mr_audio_capturer.h"
#include "media/mr_video_frame.h"
#include "scripted_sarnet/scripted_sarnet.h"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr std::size_t kAudioFrames = 960;  // 20 ms at 48 kHz
constexpr std::size_t kAudioSamples = kAudioFrames * 2;
/// A little less than fills the capturer: at the very end each block moves all the others.
constexpr std::size_t kAudioBlocks =
    MRAudioCapturer::kInjectedAudioBufferSize / kAudioSamples - 100;

/// What any way of taking 20 ms of audio costs at least, in the same pattern as below: one block
/// behind the other through a region as large as the capturer's buffer, zeroed at its end.
void BM_AudioMemcpy(benchmark::State& state) {
  const std::vector<std::int16_t> samples(kAudioSamples, 1);
  std::vector<std::int16_t> buffer(MRAudioCapturer::kInjectedAudioBufferSize);
  std::size_t block = 0;
  while (state.KeepRunning()) {
    if (block == kAudioBlocks) {
      state.PauseTiming();
      std::fill(buffer.begin(), buffer.end(), std::int16_t{0});
      block = 0;
      state.ResumeTiming();
    }
    std::memcpy(buffer.data() + block * kAudioSamples, samples.data(),
                kAudioSamples * sizeof(std::int16_t));
    benchmark::ClobberMemory();
    ++block;
  }
}

void BM_AddAudio(benchmark::State& state) {
  scripted_reset();
  scripted_log(0);
  MRAudioCapturer capturer(std::chrono::milliseconds(10));
  capturer.init(48000, 2);
  capturer.start();
  const std::vector<std::int16_t> samples(kAudioSamples, 1);
  const MRAudioData block(samples.data(), 48000, 2, kAudioFrames);
  std::size_t blocks = 0;
  while (state.KeepRunning()) {
    if (blocks == kAudioBlocks) {
      state.PauseTiming();
      capturer.clearAudioBuffers();
      blocks = 0;
      state.ResumeTiming();
    }
    if (!capturer.addAudio(block)) state.SkipWithError("refused");
    ++blocks;
  }
  capturer.stop();
}

void BM_FrameMemcpy(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(
      MRVideoFrame::bufferSize(kWidth, kHeight, MRVideoFrameFormat::YUV420P));
  const std::vector<std::uint8_t> picture(size, 1);
  std::vector<std::uint8_t> buffer(size);
  while (state.KeepRunning()) {
    std::memcpy(buffer.data(), picture.data(), size);
    benchmark::ClobberMemory();
  }
}

void BM_FrameCreate(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(
      MRVideoFrame::bufferSize(kWidth, kHeight, MRVideoFrameFormat::YUV420P));
  const std::vector<std::uint8_t> picture(size, 1);
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(
        MRVideoFrame::create(kWidth, kHeight, picture.data(), MRVideoFrameFormat::YUV420P));
  }
}

void BM_PoolGetAndReturn(benchmark::State& state) {
  auto& pool = MemoryPool<std::uint8_t>::instance();
  constexpr int kSize = 460'800;
  while (state.KeepRunning()) {
    auto buffer = pool.getBuffer(kSize);
    benchmark::DoNotOptimize(buffer.get());
    pool.returnBuffer(kSize, std::move(buffer));
  }
}

BENCHMARK(BM_AudioMemcpy);
BENCHMARK(BM_AddAudio);
BENCHMARK(BM_FrameMemcpy);
BENCHMARK(BM_FrameCreate);
BENCHMARK(BM_PoolGetAndReturn)->ThreadRange(1, 2);

}  // namespace
