#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace sarnet {

// A ring of interleaved frames between two threads. write() on one thread, all else on the
// reader's, except for the counts, which any thread may read. Neither side waits, locks or
// allocates; the constructor allocates everything.
class FrameRing {
 public:
  FrameRing(std::size_t frames, int channels);

  std::size_t capacity() const { return capacity_; }
  std::size_t channels() const { return channels_; }

  // Whole frames, all of them or none: false when they do not fit.
  bool write(std::span<const std::int16_t> samples);

  // Frames queued.
  std::size_t queued() const;
  // Frames ever written.
  std::uint64_t written() const { return written_.load(std::memory_order_acquire); }
  // Takes the available frames that fit; returns their number.
  std::size_t pop(std::span<std::int16_t> samples);
  // Copies the oldest frames without taking them; at most what is queued. Returns their number.
  std::size_t peek(std::span<std::int16_t> samples) const;
  // Drops the oldest frames, at most what is queued.
  void skip(std::size_t frames);

 private:
  const std::size_t channels_;
  const std::size_t capacity_;
  std::vector<std::int16_t> samples_;
  // Positions count frames since the start and never wrap.
  std::atomic<std::uint64_t> written_{0};
  std::atomic<std::uint64_t> taken_{0};
};

}  // namespace sarnet
