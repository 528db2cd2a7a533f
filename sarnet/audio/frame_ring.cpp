#include "audio/frame_ring.h"

#include <algorithm>

namespace sarnet {

FrameRing::FrameRing(std::size_t frames, int channels)
    : channels_(static_cast<std::size_t>(channels)),
      capacity_(frames),
      samples_(capacity_ * channels_) {}

bool FrameRing::write(std::span<const std::int16_t> samples) {
  const std::size_t frames = samples.size() / channels_;
  const std::uint64_t written = written_.load(std::memory_order_relaxed);
  const std::uint64_t taken = taken_.load(std::memory_order_acquire);
  if (frames > capacity_ - static_cast<std::size_t>(written - taken)) return false;
  const auto start = static_cast<std::size_t>(written % capacity_);
  const std::size_t first = std::min(frames, capacity_ - start) * channels_;
  std::copy_n(samples.data(), first, samples_.data() + start * channels_);
  std::copy_n(samples.data() + first, frames * channels_ - first, samples_.data());
  written_.store(written + frames, std::memory_order_release);
  return true;
}

std::size_t FrameRing::queued() const {
  return static_cast<std::size_t>(written_.load(std::memory_order_acquire) -
                                  taken_.load(std::memory_order_relaxed));
}

std::size_t FrameRing::peek(std::span<std::int16_t> samples) const {
  const std::size_t frames = std::min(queued(), samples.size() / channels_);
  const auto start =
      static_cast<std::size_t>(taken_.load(std::memory_order_relaxed) % capacity_) * channels_;
  const std::size_t first = std::min(frames * channels_, samples_.size() - start);
  std::copy_n(samples_.data() + start, first, samples.data());
  std::copy_n(samples_.data(), frames * channels_ - first, samples.data() + first);
  return frames;
}

std::size_t FrameRing::pop(std::span<std::int16_t> samples) {
  const std::size_t frames = peek(samples);
  taken_.fetch_add(frames, std::memory_order_release);
  return frames;
}

void FrameRing::skip(std::size_t frames) {
  taken_.fetch_add(std::min(frames, queued()), std::memory_order_release);
}

}  // namespace sarnet
