#include "core/capture_path.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "core/thread_keeper.h"

namespace sarnet {
namespace {

using Clock = std::chrono::steady_clock;

constexpr AudioFormat kSessionFormat{48000, 2};
constexpr std::chrono::milliseconds kPeriod{10};
// A clock that was held up for longer starts anew instead of catching up.
constexpr std::chrono::milliseconds kPatience{100};

bool is_silent(std::span<const std::int16_t> samples) {
  return std::all_of(samples.begin(), samples.end(), [](std::int16_t each) { return each == 0; });
}

}  // namespace

struct CapturePath::Run {
  explicit Run(const AudioFormat& device) : format(device), drift(device, kSessionFormat) {}

  const AudioFormat format;
  DriftBuffer drift;
  std::mutex mutex;
  std::condition_variable changed;
  bool stopped = false;
};

CapturePath::CapturePath(Counters& counters) : counters_(counters) {}

void CapturePath::start(const AudioFormat& format) {
  stop();
  auto run = std::make_shared<Run>(format);
  {
    const std::lock_guard lock(mutex_);
    run_ = run;
  }
  counters_.capture_pacing.restart();
  ThreadKeeper::instance().start("srn-capture", [this, run] { pump(*run); });
}

void CapturePath::stop() {
  std::shared_ptr<Run> run;
  {
    const std::lock_guard lock(mutex_);
    run.swap(run_);
  }
  if (!run) return;
  {
    const std::lock_guard lock(run->mutex);
    run->stopped = true;
  }
  run->changed.notify_all();
}

void CapturePath::add(std::shared_ptr<PublishedStream> stream, bool stereo) {
  const std::lock_guard lock(mutex_);
  targets_.push_back({std::move(stream), stereo});
}

void CapturePath::remove(const PublishedStream* stream) {
  Target gone;
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(targets_.begin(), targets_.end(),
                                  [&](const Target& each) { return each.stream.get() == stream; });
  if (found == targets_.end()) return;
  gone = std::move(*found);
  targets_.erase(found);
}

void CapturePath::write(const std::int16_t* samples, std::size_t frames) {
  const auto now = Clock::now();
  const std::lock_guard lock(mutex_);
  if (!run_ || frames == 0) return;
  const AudioFormat& format = run_->format;
  const std::span<const std::int16_t> all(samples,
                                          frames * static_cast<std::size_t>(format.channels));
  counters_.capture_pacing.add(
      std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count(),
      static_cast<std::int64_t>(frames) * 1'000'000 / format.rate);
  ++counters_.capture_periods;
  counters_.capture_frames += frames;
  if (is_silent(all)) ++counters_.capture_silence;
  for (const Target& target : targets_) target.stream->on_captured_audio(format, all);
  run_->drift.write(all);
}

void CapturePath::give(std::span<const std::int16_t> stereo, std::span<const std::int16_t> mono) {
  const std::lock_guard lock(mutex_);
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
  auto due = Clock::now();
  while (true) {
    due += kPeriod;
    {
      std::unique_lock lock(run.mutex);
      if (run.changed.wait_until(lock, due, [&] { return run.stopped; })) return;
    }
    if (const auto now = Clock::now(); now > due + kPatience) due = now;
    run.drift.read(stereo);
    const std::uint64_t total = run.drift.counters().underruns;
    counters_.capture_underruns += total - std::exchange(underruns, total);
    for (std::size_t frame = 0; frame < frames; ++frame) {
      mono[frame] = static_cast<std::int16_t>((stereo[2 * frame] + stereo[2 * frame + 1]) / 2);
    }
    give(stereo, mono);
  }
}

}  // namespace sarnet
