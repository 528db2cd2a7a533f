#include "audio/drift_buffer.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "base/audio_channels.h"

namespace sarnet {
namespace {

constexpr int kFadeMs = 5;
constexpr int kLeastMs = 5;    // of a target
constexpr int kBlockMs = 100;  // largest block that is worked on at once
// Playing starts with the target, or up to 10 ms more, left in the queue.
constexpr double kHalfBlockMs = 5;
constexpr int kLateMs = 10;           // how far a punctual writer may be behind: a block
constexpr int kBurstMs = 300;         // the burst a writer may add to a full queue
constexpr std::size_t kHistory = 64;  // frames that the interpolator needs to get going
constexpr std::size_t kLookahead = 64;

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
      max_frames_(frames_of(std::max(max_ms, 2 * std::max(target_ms, kLeastMs)), writer.rate)),
      fade_frames_(frames_of(kFadeMs, reader.rate)),
      ring_(max_frames_ + frames_of(kBurstMs, writer.rate), writer.channels),
      depth_(std::max(target_ms, kLeastMs)),
      resampler_(writer, reader),
      fader_(fade_frames_, reader.channels),
      joint_(in_samples(frames_of(kFadeMs, writer.rate), writer)) {
  follow_target();
  staging_.resize(in_samples(frames_of(kBlockMs, writer.rate) + 1, writer_));
  history_.resize(in_samples(kHistory, writer_));
  scratch_.resize(in_samples(kHistory + frames_of(kBlockMs, reader.rate), reader_));
}

void DriftBuffer::write(std::span<const std::int16_t> samples) {
  const std::size_t channels = ring_.channels();
  std::size_t frames = samples.size() / channels;
  if (frames > max_frames_) {
    frames_dropped_.fetch_add(frames - max_frames_, std::memory_order_relaxed);
    samples = samples.subspan((frames - max_frames_) * channels);
    frames = max_frames_;
  }
  if (!ring_.write(samples)) {
    frames_dropped_.fetch_add(frames, std::memory_order_relaxed);
    overflowed_.store(true, std::memory_order_release);
  }
}

double DriftBuffer::queued_ms() const {
  return static_cast<double>(ring_.queued()) * 1000.0 / writer_.rate;
}

std::size_t DriftBuffer::target_frames() const {
  return static_cast<std::size_t>(depth_.target_ms() * writer_.rate / 1000.0);
}

// Takes the available frames that fit; returns their number.
std::size_t DriftBuffer::pop(std::span<std::int16_t> frames) {
  const std::size_t count = ring_.pop(frames);
  joint_.apply(frames.first(count * ring_.channels()));
  return count;
}

void DriftBuffer::follow_target() { clock_.aim_for(depth_.target_ms() + kHalfBlockMs); }

// Drops the oldest frames and cross-fades from them to the frames that follow.
void DriftBuffer::drop_oldest(std::size_t frames) {
  ring_.peek(joint_.old_side());
  joint_.begin();
  ring_.skip(frames);
  frames_dropped_.fetch_add(frames, std::memory_order_relaxed);
  clock_.settle();
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
  last_correction_.store(1.0 / (1.0 + clock_.correction()), std::memory_order_relaxed);
  return audible;
}

bool DriftBuffer::read_block(std::span<std::int16_t> samples) {
  const auto channels = static_cast<std::size_t>(reader_.channels);
  const std::size_t frames = samples.size() / channels;
  if (overflowed_.exchange(false, std::memory_order_acquire)) {
    const std::size_t stale = ring_.queued();
    frames_dropped_.fetch_add(stale, std::memory_order_relaxed);
    ring_.skip(stale);
    stop_playing();
  }
  const auto fall_silent = [this](std::span<std::int16_t> rest) {
    frames_silent_.fetch_add(fader_.silence(rest), std::memory_order_relaxed);
  };
  if (mode_ == Mode::kPriming && !primed(frames)) {
    silent_frames_ += frames;
    const bool decaying = fader_.decaying();
    fall_silent(samples);
    return decaying;
  }
  if (ring_.queued() > max_frames_) drop_oldest(ring_.queued() - target_frames());
  const std::size_t played = mode_ == Mode::kExact ? play_exact(samples) : play_stretched(samples);
  fader_.pass(samples.first(played * channels));
  if (played < frames) {
    underruns_.fetch_add(1, std::memory_order_relaxed);
    stop_playing();
    fall_silent(samples.subspan(played * channels));
  } else {
    steer(frames);
  }
  return true;
}

// Whether to begin with the next block: the target is queued in addition to it, or a short sound
// has waited for the target's length.
bool DriftBuffer::primed(std::size_t frames) {
  const std::uint64_t written = ring_.written();
  idle_frames_ = written == written_seen_ ? idle_frames_ + frames : 0;
  written_seen_ = written;
  const std::size_t block =
      frames * static_cast<std::size_t>(writer_.rate) / static_cast<std::size_t>(reader_.rate);
  const bool waited_long = idle_frames_ * static_cast<std::size_t>(writer_.rate) >=
                           target_frames() * static_cast<std::size_t>(reader_.rate);
  const std::size_t queued = ring_.queued();
  if (fader_.decaying() || (queued < target_frames() + block && (queued == 0 || !waited_long))) {
    return false;
  }
  start_playing();
  return true;
}

// Whether the writer wrote all that was due since the queue ran dry. One that paused, as at the end
// of an utterance, needs no longer queue.
bool DriftBuffer::only_late() const {
  const std::uint64_t written =
      ring_.written() - written_at_underrun_ + frames_of(kLateMs, writer_.rate);
  return written * static_cast<std::uint64_t>(reader_.rate) >=
         static_cast<std::uint64_t>(silent_frames_) * static_cast<std::uint64_t>(writer_.rate);
}

void DriftBuffer::start_playing() {
  if (played_before_ && only_late()) {
    depth_.was_late(static_cast<double>(silent_frames_) * 1000.0 / reader_.rate);
    follow_target();
  }
  clock_.begin();
  resampler_.set_correction(1.0);
  resampler_.reset();
  if (writer_.rate == reader_.rate) {
    mode_ = Mode::kExact;
    clock_.reset_correction();
  } else {
    mode_ = Mode::kStretching;
    resampler_.set_correction(1.0 / (1.0 + clock_.correction()));
  }
  history_frames_ = 0;
  // The very first sound is not faded in.
  if (played_before_) {
    fader_.begin_rise();
  } else {
    fader_.begin_whole();
  }
  played_before_ = true;
}

void DriftBuffer::stop_playing() {
  if (mode_ == Mode::kPriming) return;
  mode_ = Mode::kPriming;
  fader_.begin_decay();
  joint_.cancel();
  idle_frames_ = silent_frames_ = 0;
  written_seen_ = written_at_underrun_ = ring_.written();
}

std::size_t DriftBuffer::play_exact(std::span<std::int16_t> samples) {
  const auto in_channels = static_cast<std::size_t>(writer_.channels);
  const std::size_t frames = samples.size() / static_cast<std::size_t>(reader_.channels);
  const bool drifting = clock_.is_off();
  const std::size_t count = pop(std::span(staging_).first(frames * in_channels));
  convert_channels(staging_.data(), writer_.channels, samples.data(), reader_.channels, count);
  if (drifting && history_frames_ == kHistory && count == frames && ring_.queued() >= kLookahead) {
    begin_stretching(samples);
  } else {
    remember(count);
  }
  return count;
}

// Keeps the last of the frames in staging_.
void DriftBuffer::remember(std::size_t frames) {
  const auto channels = static_cast<std::size_t>(writer_.channels);
  const std::size_t fresh = std::min(frames, kHistory);
  std::copy(history_.begin() + static_cast<std::ptrdiff_t>(fresh * channels), history_.end(),
            history_.begin());
  std::copy_n(staging_.data() + (frames - fresh) * channels, fresh * channels,
              history_.data() + (kHistory - fresh) * channels);
  history_frames_ = std::min(kHistory, history_frames_ + fresh);
}

// Cross-fades from the unchanged samples, which are in `samples` and in staging_, to the
// interpolator's at the same position. The interpolator adds no delay once it has some past and
// future samples.
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
    if (pop(ahead) == 0) break;
    feed(ahead);
  }
  const std::int16_t* interpolated = scratch_.data() + kHistory * out_channels;
  const std::size_t ready = made > kHistory ? (made - kHistory) * out_channels : 0;
  const std::size_t fade = std::min(fade_frames_, frames) * out_channels;
  for (std::size_t i = 0; i < ready; ++i) {
    samples[i] = mixed(samples[i], interpolated[i], std::min(i, fade), fade);
  }
  mode_ = Mode::kStretching;
}

std::size_t DriftBuffer::play_stretched(std::span<std::int16_t> samples) {
  if (const std::size_t all = samples.size() / static_cast<std::size_t>(reader_.channels);
      may_end_stretching(all)) {
    end_stretching(samples);
    return all;
  }
  const auto in_channels = static_cast<std::size_t>(writer_.channels);
  const auto out_channels = static_cast<std::size_t>(reader_.channels);
  const std::size_t frames = samples.size() / out_channels;
  const double inputs_per_output =
      static_cast<double>(writer_.rate) / reader_.rate * (1.0 + clock_.correction());
  resampler_.set_correction(1.0 / (1.0 + clock_.correction()));

  std::size_t made = 0;
  while (made < frames) {
    // Rounded down, so that nothing gathers inside the interpolator.
    const auto wanted =
        static_cast<std::size_t>(static_cast<double>(frames - made) * inputs_per_output);
    const std::size_t room =
        std::clamp<std::size_t>(wanted, 1, staging_.size() / in_channels) * in_channels;
    const std::size_t count = pop(std::span(staging_).first(room));
    if (count == 0) {
      // The interpolator's rest, 3 ms at most, is not flushed: it would end in a step.
      break;
    }
    remember(count);
    made += resampler_
                .process(std::span<const std::int16_t>(staging_).first(count * in_channels),
                         samples.subspan(made * out_channels))
                .produced;
  }
  return made;
}

bool DriftBuffer::may_end_stretching(std::size_t frames) const {
  return mode_ == Mode::kStretching && clock_.is_calm() && writer_.rate == reader_.rate &&
         history_frames_ == kHistory && frames >= fade_frames_ + kHistory &&
         ring_.queued() >= frames;
}

// Cross-fades from the interpolator to the unchanged samples at the same position, to half a frame:
// those that it has taken and not given yet, then those that follow.
void DriftBuffer::end_stretching(std::span<std::int16_t> samples) {
  const auto in_channels = static_cast<std::size_t>(writer_.channels);
  const auto out_channels = static_cast<std::size_t>(reader_.channels);
  const std::size_t frames = samples.size() / out_channels;
  const std::size_t held =
      std::min(static_cast<std::size_t>(std::lround(std::max(resampler_.delay(), 0.0))), kHistory);
  std::copy(history_.end() - static_cast<std::ptrdiff_t>(held * in_channels), history_.end(),
            staging_.begin());
  const std::span fresh = std::span(staging_).subspan(held * in_channels);
  const std::size_t count = pop(fresh.first((frames - held) * in_channels));
  const std::size_t fading = resampler_
                                 .process(fresh.first(count * in_channels),
                                          std::span(scratch_).first(fade_frames_ * out_channels))
                                 .produced *
                             out_channels;
  convert_channels(staging_.data(), writer_.channels, samples.data(), reader_.channels, frames);
  for (std::size_t i = 0; i < fading; ++i) samples[i] = mixed(scratch_[i], samples[i], i, fading);
  remember(frames);
  clock_.reset_correction();
  mode_ = Mode::kExact;
}

void DriftBuffer::steer(std::size_t frames) {
  const double seconds = static_cast<double>(frames) / reader_.rate;
  clock_.update(queued_ms(), seconds, mode_ == Mode::kStretching);
  if (depth_.observe(queued_ms(), seconds)) follow_target();
}

DriftBuffer::Counters DriftBuffer::counters() const {
  return {underruns_.load(std::memory_order_relaxed),
          frames_dropped_.load(std::memory_order_relaxed),
          frames_silent_.load(std::memory_order_relaxed),
          last_queued_ms_.load(std::memory_order_relaxed),
          last_correction_.load(std::memory_order_relaxed)};
}

}  // namespace sarnet
