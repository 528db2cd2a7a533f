#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "base/delivery_queue.h"
#include "base/picture.h"
#include "relay/media/codecs/video_encoder.h"

namespace sarnet::relay {

// Codes the pictures of one publication on a thread of its own, which the library joins. Any
// thread, unless said otherwise.
class PictureEncoder : public std::enable_shared_from_this<PictureEncoder> {
 public:
  using Micros = std::chrono::microseconds;
  // A coded frame, on the encoder's thread.
  using Output = std::function<void(std::vector<std::uint8_t> frame, Micros stamp)>;

  PictureEncoder(VideoCodec codec, int fps, Output output);

  // Once; throws std::system_error when no thread can be made.
  void start();
  // The thread ends after the picture under way; nothing is put out afterwards but that.
  void close() { queue_.close(); }

  // Keeps the picture until it is coded; the oldest is dropped when three wait.
  void push(const PictureRef& picture, Micros stamp);
  void request_key_frame() { wants_key_ = true; }
  // What the pictures want, and what they get from the next one on; bits a second.
  std::uint64_t wanted_bitrate() const { return wanted_; }
  void set_bitrate(std::uint64_t bits_per_second) { bitrate_ = bits_per_second; }

 private:
  struct Entry {
    PictureRef picture;
    Micros stamp{0};
  };
  static constexpr std::size_t kQueue = 3;

  void run();

  const VideoCodec codec_;
  const int fps_;
  const Output output_;
  DeliveryCounter counter_;
  DeliveryCounter total_;
  DeliveryQueue<Entry> queue_{kQueue, counter_, total_};
  std::atomic<bool> wants_key_{true};
  std::atomic<std::uint64_t> wanted_{1'000'000};
  std::atomic<std::uint64_t> bitrate_{UINT64_MAX};
};

}  // namespace sarnet::relay
