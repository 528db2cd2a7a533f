#include "relay/peer/picture_encoder.h"

#include <algorithm>
#include <utility>

#include "relay/peer/services.h"

namespace sarnet::relay {

PictureEncoder::PictureEncoder(VideoCodec codec, int fps, Output output)
    : codec_(codec), fps_(std::max(fps, 1)), output_(std::move(output)) {}

void PictureEncoder::start() {
  services().start_thread("srn-encode", [self = shared_from_this()] { self->run(); });
}

void PictureEncoder::push(const PictureRef& picture, Micros stamp) {
  queue_.push([&](Entry& entry) {
    entry.picture = picture;
    entry.stamp = stamp;
  });
}

void PictureEncoder::run() {
  const auto encoder = VideoEncoder::create(codec_, fps_);
  if (!encoder) {
    SARNET_LOG(kError, "relay: there is no encoder for pictures");
    return;
  }
  bool is_broken = false;
  Entry entry;
  DeliveryQueue<Entry>::Clock::time_point ready;
  while (queue_.pop(entry, ready)) {
    const PictureView view = std::as_const(*entry.picture).view();
    wanted_ = sarnet::relay::wanted_bitrate(view.width, view.height, fps_);
    const bool coded = encoder->encode(
        view, std::min<std::uint64_t>(wanted_, bitrate_), wants_key_.exchange(false),
        [&](std::span<const std::uint8_t> frame) {
          output_(std::vector<std::uint8_t>(frame.begin(), frame.end()), entry.stamp);
        });
    if (!coded && !std::exchange(is_broken, true)) {
      SARNET_LOG(kError,
                 "relay: a picture of " << view.width << 'x' << view.height << " cannot be coded");
    }
    entry.picture = {};
  }
}

}  // namespace sarnet::relay
