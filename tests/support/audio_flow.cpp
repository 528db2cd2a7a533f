#include "audio_flow.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "script.h"
#include "scripted_sarnet.h"

namespace scripted {
namespace {

constexpr size_t kKeptSamples = 2'097'152;
constexpr std::chrono::seconds kLongestBlock{20};

struct Capture {
  std::mutex mutex;
  std::vector<int16_t> ring;
  uint64_t total = 0;
  size_t channels = 1;
};

struct Render {
  std::mutex mutex;
  std::condition_variable released;
  std::vector<int16_t> pattern;
  uint64_t position = 0;
  long answer = -1;
  bool blocked = false;
  size_t channels = 1;
};

Capture& capture() {
  static Capture* const instance = new Capture;
  return *instance;
}

Render& render() {
  static Render* const instance = new Render;
  return *instance;
}

}  // namespace

void resetAudioFlow() {
  {
    const std::lock_guard lock(capture().mutex);
    capture().total = 0;
    capture().channels = 1;
  }
  const std::lock_guard lock(render().mutex);
  render().pattern.clear();
  render().position = 0;
  render().answer = -1;
  render().blocked = false;
  render().channels = 1;
  render().released.notify_all();
}

void setCaptureChannels(int channels) {
  const std::lock_guard lock(capture().mutex);
  capture().channels = static_cast<size_t>(std::max(channels, 0));
}

void setRenderChannels(int channels) {
  const std::lock_guard lock(render().mutex);
  render().channels = static_cast<size_t>(std::max(channels, 0));
}

}  // namespace scripted

using scripted::capture;
using scripted::Fn;
using scripted::render;
using scripted::script;

srn_status srn_audio_device_write_capture_data(const int16_t* buffer, size_t count) {
  script().note(Fn::srn_audio_device_write_capture_data, "buffer", buffer, "count", count);
  const auto failure = script().failure(Fn::srn_audio_device_write_capture_data);
  if (!failure && buffer != nullptr) {
    auto& kept = capture();
    const std::lock_guard lock(kept.mutex);
    if (kept.ring.empty()) kept.ring.resize(scripted::kKeptSamples);
    const size_t samples = count * kept.channels;
    for (size_t i = 0; i < samples; ++i) {
      kept.ring[(kept.total + i) % scripted::kKeptSamples] = buffer[i];
    }
    kept.total += samples;
  }
  script().count(Fn::srn_audio_device_write_capture_data);
  return failure.value_or(buffer == nullptr ? srn_status{SRN_SESSION_NULL_OR_INVALID_PARAMETER}
                                            : srn_status{SRN_SUCCESS});
}

size_t srn_audio_device_read_render_data(int16_t* buffer, size_t count) {
  const auto failure =
      script().call(Fn::srn_audio_device_read_render_data, "buffer", buffer, "count", count);
  if (failure || buffer == nullptr) return 0;
  auto& given = render();
  std::unique_lock lock(given.mutex);
  given.released.wait_for(lock, scripted::kLongestBlock, [&] { return !given.blocked; });
  const size_t frames =
      given.answer < 0 ? count : std::min(count, static_cast<size_t>(given.answer));
  for (size_t i = 0; i < frames * given.channels; ++i, ++given.position) {
    buffer[i] = given.pattern.empty() ? static_cast<int16_t>(given.position % 32'768)
                                      : given.pattern[given.position % given.pattern.size()];
  }
  return frames;
}

void scripted_capture_channels(int channels) { scripted::setCaptureChannels(channels); }
void scripted_render_channels(int channels) { scripted::setRenderChannels(channels); }

uint64_t scripted_captured_total(void) {
  const std::lock_guard lock(capture().mutex);
  return capture().total;
}

size_t scripted_captured(uint64_t from, int16_t* out, size_t max) {
  auto& kept = capture();
  const std::lock_guard lock(kept.mutex);
  const uint64_t oldest =
      kept.total > scripted::kKeptSamples ? kept.total - scripted::kKeptSamples : 0;
  if (out == nullptr || from < oldest || from >= kept.total) return 0;
  const auto samples = static_cast<size_t>(std::min<uint64_t>(max, kept.total - from));
  for (size_t i = 0; i < samples; ++i) out[i] = kept.ring[(from + i) % scripted::kKeptSamples];
  return samples;
}

void scripted_render_answer(long frames) {
  const std::lock_guard lock(render().mutex);
  render().answer = frames;
}

void scripted_render_pattern(const int16_t* samples, size_t count) {
  const std::lock_guard lock(render().mutex);
  render().position = 0;
  render().pattern.clear();
  if (samples != nullptr) render().pattern.assign(samples, samples + count);
}

void scripted_render_block(int on) {
  const std::lock_guard lock(render().mutex);
  render().blocked = on != 0;
  render().released.notify_all();
}
