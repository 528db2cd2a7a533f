#include "audio/capture_path.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/audio_channels.h"
#include "base/thread_keeper.h"

namespace sarnet {
namespace {

using Clock = std::chrono::steady_clock;

constexpr AudioFormat kSessionFormat{48000, 2};
constexpr std::chrono::milliseconds kPeriod{10};
// Queued in addition to the current block. As blocks come whole this makes 10 ms: a thread of the
// program may be that late.
constexpr int kTargetMs = 5;
// How far behind the program's writes the session's clock ticks.
constexpr std::chrono::milliseconds kBehind{2};
// A clock that was delayed by more restarts instead of catching up.
constexpr std::chrono::milliseconds kPatience{100};

bool is_silent(std::span<const std::int16_t> samples) {
  return std::all_of(samples.begin(), samples.end(), [](std::int16_t each) { return each == 0; });
}

}  // namespace

struct CapturePath::Run {
  explicit Run(const AudioFormat& device) : drift(device, kSessionFormat, kTargetMs) {}

  DriftBuffer drift;
  common::Mutex mutex;
  std::condition_variable changed;
  bool begun GUARDED_BY(mutex) = false;
  bool stopped GUARDED_BY(mutex) = false;

  void begin() {
    const common::LockGuard lock(mutex);
    if (!std::exchange(begun, true)) changed.notify_all();
  }
};

CapturePath::CapturePath(Counters& counters) : counters_(counters) {}

std::shared_ptr<CapturePath::Run> CapturePath::launch(const AudioFormat& format) {
  auto run = std::make_shared<Run>(format);
  ThreadKeeper::instance().start("srn-capture", [this, run] { pump(*run); });
  return run;
}

void CapturePath::end(const std::shared_ptr<Run>& run) {
  if (!run) return;
  {
    const common::LockGuard lock(run->mutex);
    run->stopped = true;
  }
  run->changed.notify_all();
}

void CapturePath::start(const AudioFormat& format) {
  stop();
  counters_.capture_pacing.restart();
  const common::LockGuard lock(mutex_);
  if (!targets_.empty()) run_ = launch(format);
  format_ = format;
}

void CapturePath::stop() {
  std::shared_ptr<Run> run;
  {
    const common::LockGuard lock(mutex_);
    format_.reset();
    run.swap(run_);
  }
  end(run);
}

void CapturePath::add(std::shared_ptr<PublishedStream> stream, bool stereo) {
  const common::LockGuard lock(mutex_);
  if (format_ && !run_) run_ = launch(*format_);
  targets_.push_back({std::move(stream), stereo});
}

void CapturePath::remove(const PublishedStream* stream) {
  Target gone;
  std::shared_ptr<Run> run;
  {
    const common::LockGuard lock(mutex_);
    const auto found = std::find_if(targets_.begin(), targets_.end(), [&](const Target& each) {
      return each.stream.get() == stream;
    });
    if (found == targets_.end()) return;
    gone = std::move(*found);
    targets_.erase(found);
    if (targets_.empty()) run.swap(run_);
  }
  end(run);
}

void CapturePath::write(const std::int16_t* samples, std::size_t frames) {
  const auto now = Clock::now();
  const common::LockGuard lock(mutex_);
  if (!format_ || frames == 0) return;
  const AudioFormat& format = *format_;
  const std::span<const std::int16_t> all(samples,
                                          frames * static_cast<std::size_t>(format.channels));
  counters_.capture_pacing.add(
      std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count(),
      static_cast<std::int64_t>(frames) * 1'000'000 / format.rate);
  ++counters_.capture_periods;
  counters_.capture_frames += frames;
  if (is_silent(all)) ++counters_.capture_silence;
  for (const Target& target : targets_) target.stream->on_captured_audio(format, all);
  if (!run_) return;
  run_->drift.write(all);
  run_->begin();
}

void CapturePath::give(std::span<const std::int16_t> stereo, std::span<const std::int16_t> mono) {
  const common::LockGuard lock(mutex_);
  for (const Target& target : targets_) {
    if (target.stereo) {
      target.stream->on_audio(kSessionFormat, stereo);
    } else {
      target.stream->on_audio({kSessionFormat.rate, 1}, mono);
    }
  }
}

void CapturePath::pump(Run& run) {
  const auto frames = static_cast<std::size_t>(kSessionFormat.period_frames());
  std::vector<std::int16_t> stereo(frames * 2);
  std::vector<std::int16_t> mono(frames);
  std::uint64_t underruns = 0;
  {
    common::UniqueLock lock(run.mutex);
    run.changed.wait(lock.native(), [&]() REQUIRES(run.mutex) { return run.begun || run.stopped; });
  }
  auto due = Clock::now() + kBehind;
  while (true) {
    {
      common::UniqueLock lock(run.mutex);
      if (run.changed.wait_until(lock.native(), due,
                                 [&]() REQUIRES(run.mutex) { return run.stopped; }))
        return;
    }
    if (const auto now = Clock::now(); now > due + kPatience) due = now;
    run.drift.read(stereo);
    const std::uint64_t total = run.drift.counters().underruns;
    counters_.capture_underruns += total - std::exchange(underruns, total);
    convert_channels(stereo.data(), 2, mono.data(), 1, frames);
    give(stereo, mono);
    due += kPeriod;
  }
}

}  // namespace sarnet
