#include "audio/drift_buffer.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace sarnet {
namespace {

constexpr int kFadeMs = 5;
constexpr int kStepMs = 10;    // by which a target grows
constexpr int kBlockMs = 100;  // largest block that is worked on at once
constexpr double kHalfBlockMs =
    5;  // playing starts with target_ms to target_ms + 10 ms left in the queue
constexpr int kBurstMs = 300;         // what a writer may bring at once on top of a full queue
constexpr std::size_t kHistory = 64;  // frames that the interpolator needs to get going
constexpr std::size_t kLookahead = 64;

// The controller. The queue's length moves in steps of the writer's blocks even when the clocks
// agree, so small errors are answered softly (a step of 10 ms bends the pitch by 0.3 %) and only
// what exceeds the steps is answered firmly.
constexpr double kMeanSeconds = 0.3;
constexpr double kSoftGain = 0.3;  // speed-up for each second of error
constexpr double kFirmGain = 1.5;  // the same for the part above kDeadBandMs
constexpr double kSoftLearning =
    0.05;  // learned difference for each second of error and second of time
constexpr double kFirmLearning = 0.5;
constexpr double kMaxCorrection = 0.045;
constexpr double kMaxLearned = 0.03;
constexpr double kMaxSlew = 0.04;  // change of the speed-up for each second

std::size_t frames_of(int milliseconds, int rate) {
  return static_cast<std::size_t>(milliseconds) * static_cast<std::size_t>(rate) / 1000;
}

std::size_t in_samples(std::size_t frames, const AudioFormat& format) {
  return frames * static_cast<std::size_t>(format.channels);
}

}  // namespace

DriftBuffer::DriftBuffer(AudioFormat writer, AudioFormat reader, int target_ms, int max_ms)
    : writer_(writer),
      reader_(reader),
      target_frames_(frames_of(std::max(target_ms, 5), writer.rate)),
      max_frames_(std::max(frames_of(max_ms, writer.rate), 2 * target_frames_)),
      fade_frames_(frames_of(kFadeMs, reader.rate)),
      resampler_(writer, reader) {
  aim_for(target_frames_);
  ring_frames_ = max_frames_ + frames_of(kBurstMs, writer.rate);
  ring_.resize(in_samples(ring_frames_, writer_));
  staging_.resize(in_samples(frames_of(kBlockMs, writer.rate) + 1, writer_));
  history_.resize(in_samples(kHistory, writer_));
  scratch_.resize(in_samples(kHistory + frames_of(kBlockMs, reader.rate), reader_));
  joint_.resize(in_samples(frames_of(kFadeMs, writer.rate), writer_));
  joint_position_ = joint_.size();
  fade_in_position_ = fade_frames_;
}

void DriftBuffer::write(std::span<const std::int16_t> samples) {
  const auto channels = static_cast<std::size_t>(writer_.channels);
  std::size_t frames = samples.size() / channels;
  if (frames > max_frames_) {
    frames_dropped_.fetch_add(frames - max_frames_, std::memory_order_relaxed);
    samples = samples.subspan((frames - max_frames_) * channels);
    frames = max_frames_;
  }
  if (frames == 0) {
    return;
  }
  const std::uint64_t written = written_.load(std::memory_order_relaxed);
  const std::uint64_t taken = taken_.load(std::memory_order_acquire);
  if (frames > ring_frames_ - static_cast<std::size_t>(written - taken)) {
    frames_dropped_.fetch_add(frames, std::memory_order_relaxed);
    overflowed_.store(true, std::memory_order_release);
    return;
  }
  const auto start = static_cast<std::size_t>(written % ring_frames_);
  const std::size_t first = std::min(frames, ring_frames_ - start);
  std::copy_n(samples.data(), first * channels, ring_.data() + start * channels);
  std::copy_n(samples.data() + first * channels, (frames - first) * channels, ring_.data());
  written_.store(written + frames, std::memory_order_release);
}

std::size_t DriftBuffer::queued() const {
  return static_cast<std::size_t>(written_.load(std::memory_order_acquire) -
                                  taken_.load(std::memory_order_relaxed));
}

double DriftBuffer::queued_ms() const {
  return static_cast<double>(queued()) * 1000.0 / writer_.rate;
}

void DriftBuffer::peek(std::uint64_t position, std::span<std::int16_t> frames) const {
  const auto channels = static_cast<std::size_t>(writer_.channels);
  const std::size_t start = static_cast<std::size_t>(position % ring_frames_) * channels;
  const std::size_t first = std::min(frames.size(), ring_.size() - start);
  std::copy_n(ring_.data() + start, first, frames.data());
  std::copy_n(ring_.data(), frames.size() - first, frames.data() + first);
}

// Takes what fits and is there; gives the number of frames.
std::size_t DriftBuffer::pop(std::span<std::int16_t> frames) {
  const auto channels = static_cast<std::size_t>(writer_.channels);
  const std::size_t count = std::min(queued(), frames.size() / channels);
  const std::uint64_t taken = taken_.load(std::memory_order_relaxed);
  peek(taken, frames.first(count * channels));
  for (std::size_t i = 0; i < count * channels && joint_position_ < joint_.size();
       ++i, ++joint_position_) {
    const int left = static_cast<int>(joint_.size() - joint_position_);
    const int whole = static_cast<int>(joint_.size());
    frames[i] = static_cast<std::int16_t>(
        (frames[i] * (whole - left) + joint_[joint_position_] * left) / whole);
  }
  taken_.store(taken + count, std::memory_order_release);
  return count;
}

void DriftBuffer::aim_for(std::size_t frames) {
  target_frames_ = frames;
  aim_ms_ = static_cast<double>(frames) * 1000.0 / writer_.rate + kHalfBlockMs;
  mean_ms_ = aim_ms_;
}

// Leaves out the oldest frames; the sound crosses over from what would have come to what comes.
void DriftBuffer::drop_oldest(std::size_t frames) {
  const std::uint64_t taken = taken_.load(std::memory_order_relaxed);
  peek(taken, joint_);
  joint_position_ = 0;
  taken_.store(taken + frames, std::memory_order_release);
  frames_dropped_.fetch_add(frames, std::memory_order_relaxed);
  mean_ms_ = aim_ms_;
}

bool DriftBuffer::read(std::span<std::int16_t> samples) {
  const std::size_t largest = in_samples(frames_of(kBlockMs, reader_.rate), reader_);
  bool audible = false;
  while (!samples.empty()) {
    const std::size_t size = std::min(samples.size(), largest);
    audible |= read_block(samples.first(size));
    samples = samples.subspan(size);
  }
  last_queued_ms_.store(queued_ms(), std::memory_order_relaxed);
  last_correction_.store(1.0 / (1.0 + correction_), std::memory_order_relaxed);
  return audible;
}

bool DriftBuffer::read_block(std::span<std::int16_t> samples) {
  const auto channels = static_cast<std::size_t>(reader_.channels);
  const std::size_t frames = samples.size() / channels;
  if (overflowed_.exchange(false, std::memory_order_acquire)) {
    const std::size_t stale = queued();
    frames_dropped_.fetch_add(stale, std::memory_order_relaxed);
    taken_.fetch_add(stale, std::memory_order_release);
    stop_playing();
  }
  if (mode_ == Mode::kPriming && !primed(frames)) {
    silent_frames_ += frames;
    const bool decaying = decay_left_ > 0;
    fall_silent(samples);
    return decaying;
  }
  if (queued() > max_frames_) {
    drop_oldest(queued() - target_frames_);
  }
  const std::size_t played = mode_ == Mode::kExact ? play_exact(samples) : play_stretched(samples);
  fade_in(samples.first(played * channels));
  if (played > 0) {
    std::copy_n(samples.data() + (played - 1) * channels, channels, last_frame_);
  }
  if (played < frames) {
    underruns_.fetch_add(1, std::memory_order_relaxed);
    stop_playing();
    fall_silent(samples.subspan(played * channels));
  } else {
    steer(frames);
  }
  return true;
}

// Whether to begin with the block to come: the target is queued beside it, or a short sound has
// been waiting for the rest of it as long as the target says.
bool DriftBuffer::primed(std::size_t frames) {
  const std::uint64_t written = written_.load(std::memory_order_acquire);
  idle_frames_ = written == written_seen_ ? idle_frames_ + frames : 0;
  written_seen_ = written;
  const std::size_t block =
      frames * static_cast<std::size_t>(writer_.rate) / static_cast<std::size_t>(reader_.rate);
  const bool waited_long = idle_frames_ * static_cast<std::size_t>(writer_.rate) >=
                           target_frames_ * static_cast<std::size_t>(reader_.rate);
  if (decay_left_ > 0 || (queued() < target_frames_ + block && (queued() == 0 || !waited_long))) {
    return false;
  }
  start_playing();
  return true;
}

// Whether the writer wrote all the same what it owed since the queue ran dry. One that paused, as
// at the end of an utterance, has no need of a longer queue.
bool DriftBuffer::only_late() const {
  const std::uint64_t written = written_.load(std::memory_order_relaxed) - written_at_underrun_ +
                                frames_of(kStepMs, writer_.rate);
  return written * static_cast<std::uint64_t>(reader_.rate) >=
         static_cast<std::uint64_t>(silent_frames_) * static_cast<std::uint64_t>(writer_.rate);
}

void DriftBuffer::start_playing() {
  const std::size_t longer = target_frames_ + frames_of(kStepMs, writer_.rate);
  if (played_before_ && longer <= frames_of(kDefaultTargetMs, writer_.rate) && only_late()) {
    aim_for(longer);
  }
  correction_ = std::clamp(learned_, -kMaxCorrection, kMaxCorrection);
  resampler_.set_correction(1.0);
  resampler_.reset();
  if (writer_.rate == reader_.rate) {
    mode_ = Mode::kExact;
    correction_ = 0;
  } else {
    mode_ = Mode::kStretching;
    resampler_.set_correction(1.0 / (1.0 + correction_));
  }
  history_frames_ = 0;
  mean_ms_ = aim_ms_;
  // The very first sound begins as the writer made it.
  fade_in_position_ = played_before_ ? 0 : fade_frames_;
  played_before_ = true;
}

void DriftBuffer::stop_playing() {
  if (mode_ != Mode::kPriming) {
    mode_ = Mode::kPriming;
    decay_left_ = fade_frames_;
    joint_position_ = joint_.size();
    idle_frames_ = silent_frames_ = 0;
    written_seen_ = written_at_underrun_ = written_.load(std::memory_order_relaxed);
  }
}

std::size_t DriftBuffer::play_exact(std::span<std::int16_t> samples) {
  const auto in_channels = static_cast<std::size_t>(writer_.channels);
  const std::size_t frames = samples.size() / static_cast<std::size_t>(reader_.channels);
  const bool drifting = std::abs(mean_ms_ - aim_ms_) > kDeadBandMs;
  const std::size_t count = pop(std::span(staging_).first(frames * in_channels));
  convert_channels(staging_.data(), writer_.channels, samples.data(), reader_.channels, count);
  if (drifting && history_frames_ == kHistory && count == frames && queued() >= kLookahead) {
    begin_stretching(samples);
  } else {
    const std::size_t fresh = std::min(count, kHistory);
    std::copy(history_.begin() + static_cast<std::ptrdiff_t>(fresh * in_channels), history_.end(),
              history_.begin());
    std::copy_n(staging_.data() + (count - fresh) * in_channels, fresh * in_channels,
                history_.data() + (kHistory - fresh) * in_channels);
    history_frames_ = std::min(kHistory, history_frames_ + fresh);
  }
  return count;
}

// Crosses over from the samples as they are, which stand in `samples` and in staging_, to the
// interpolator's of the same place. It works without delay of its own once it has some past and
// some future to look at.
void DriftBuffer::begin_stretching(std::span<std::int16_t> samples) {
  const auto in_channels = static_cast<std::size_t>(writer_.channels);
  const auto out_channels = static_cast<std::size_t>(reader_.channels);
  const std::size_t frames = samples.size() / out_channels;
  const std::size_t wanted = kHistory + frames;

  resampler_.reset();
  resampler_.interpolate();
  std::span<std::int16_t> output = std::span(scratch_).first(wanted * out_channels);
  std::size_t made = 0;
  const auto feed = [&](std::span<const std::int16_t> input) {
    made += resampler_.process(input, output.subspan(made * out_channels)).produced;
  };
  feed(history_);
  feed(std::span(staging_).first(frames * in_channels));
  while (made < wanted) {
    const std::span<std::int16_t> ahead = std::span(staging_).first(in_channels);
    if (pop(ahead) == 0) {
      break;
    }
    feed(ahead);
  }
  const std::int16_t* interpolated = scratch_.data() + kHistory * out_channels;
  const std::size_t ready = made > kHistory ? (made - kHistory) * out_channels : 0;
  const std::size_t fade = std::min(fade_frames_, frames) * out_channels;
  for (std::size_t i = 0; i < ready; ++i) {
    const int done = static_cast<int>(std::min(i, fade));
    const int whole = static_cast<int>(fade);
    samples[i] =
        static_cast<std::int16_t>((samples[i] * (whole - done) + interpolated[i] * done) / whole);
  }
  mode_ = Mode::kStretching;
}

std::size_t DriftBuffer::play_stretched(std::span<std::int16_t> samples) {
  const auto in_channels = static_cast<std::size_t>(writer_.channels);
  const auto out_channels = static_cast<std::size_t>(reader_.channels);
  const std::size_t frames = samples.size() / out_channels;
  const double inputs_per_output =
      static_cast<double>(writer_.rate) / reader_.rate * (1.0 + correction_);
  resampler_.set_correction(1.0 / (1.0 + correction_));

  std::size_t made = 0;
  while (made < frames) {
    // Rounded down, so that nothing gathers inside the interpolator.
    const auto wanted =
        static_cast<std::size_t>(static_cast<double>(frames - made) * inputs_per_output);
    const std::size_t room =
        std::clamp<std::size_t>(wanted, 1, staging_.size() / in_channels) * in_channels;
    const std::size_t count = pop(std::span(staging_).first(room));
    if (count == 0) {
      // What the interpolator still holds, 3 ms at most, is left: flushed it would end in a step.
      break;
    }
    made += resampler_
                .process(std::span<const std::int16_t>(staging_).first(count * in_channels),
                         samples.subspan(made * out_channels))
                .produced;
  }
  return made;
}

void DriftBuffer::fade_in(std::span<std::int16_t> samples) {
  const auto channels = static_cast<std::size_t>(reader_.channels);
  for (std::size_t i = 0; i < samples.size() && fade_in_position_ < fade_frames_; ++i) {
    samples[i] = static_cast<std::int16_t>(samples[i] * static_cast<int>(fade_in_position_) /
                                           static_cast<int>(fade_frames_));
    fade_in_position_ += i % channels == channels - 1 ? 1 : 0;
  }
}

// Lets the last sample die away, so that not even a queue that ends at a block's edge gives a
// click.
void DriftBuffer::fall_silent(std::span<std::int16_t> samples) {
  const auto channels = static_cast<std::size_t>(reader_.channels);
  const std::size_t frames = samples.size() / channels;
  const std::size_t decaying = std::min(decay_left_, frames);
  for (std::size_t i = 0; i < decaying * channels; ++i) {
    samples[i] = static_cast<std::int16_t>(last_frame_[i % channels] *
                                           static_cast<int>(decay_left_ - 1 - i / channels) /
                                           static_cast<int>(fade_frames_));
  }
  decay_left_ -= decaying;
  std::fill(samples.begin() + static_cast<std::ptrdiff_t>(decaying * channels), samples.end(),
            std::int16_t{0});
  frames_silent_.fetch_add(frames - decaying, std::memory_order_relaxed);
}

void DriftBuffer::steer(std::size_t frames) {
  const double seconds = static_cast<double>(frames) / reader_.rate;
  mean_ms_ += (queued_ms() - mean_ms_) * std::min(1.0, seconds / kMeanSeconds);
  if (mode_ != Mode::kStretching) {
    return;
  }
  const double error = (mean_ms_ - aim_ms_) / 1000.0;
  const double excess = error - std::clamp(error, -kDeadBandMs / 1000.0, kDeadBandMs / 1000.0);
  learned_ = std::clamp(learned_ + (kSoftLearning * error + kFirmLearning * excess) * seconds,
                        -kMaxLearned, kMaxLearned);
  const double wanted = std::clamp(learned_ + kSoftGain * error + kFirmGain * excess,
                                   -kMaxCorrection, kMaxCorrection);
  correction_ += std::clamp(wanted - correction_, -kMaxSlew * seconds, kMaxSlew * seconds);
}

DriftBuffer::Counters DriftBuffer::counters() const {
  return {underruns_.load(std::memory_order_relaxed),
          frames_dropped_.load(std::memory_order_relaxed),
          frames_silent_.load(std::memory_order_relaxed),
          last_queued_ms_.load(std::memory_order_relaxed),
          last_correction_.load(std::memory_order_relaxed)};
}

}  // namespace sarnet
