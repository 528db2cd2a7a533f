#include "pictures/video_track.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace sarnet {
namespace {

constexpr std::uint8_t kBlackLuma = 16;
constexpr std::uint8_t kNoColour = 128;

bool all_equal(const std::uint8_t* bytes, std::size_t count, std::uint8_t value) {
  return bytes[0] == value && std::memcmp(bytes, bytes + 1, count - 1) == 0;
}

bool is_black(const Picture& picture) {
  const auto luma = static_cast<std::size_t>(picture.width()) * picture.height();
  return all_equal(picture.data(), luma, kBlackLuma) &&
         all_equal(picture.data() + luma, picture.size() - luma, kNoColour);
}

}  // namespace

VideoTrack::VideoTrack(Counters& counters) : counters_(counters) {}

void VideoTrack::connect(std::shared_ptr<PublishedStream> stream, int fps) {
  const common::LockGuard lock(mutex_);
  stream_.swap(stream);
  period_ = std::chrono::microseconds(1'000'000 / std::max(fps, 1));
  last_handle_ = nullptr;
  last_time_ = {};
}

void VideoTrack::count(const Picture& picture, const void* handle) {
  const auto now = Clock::now();
  ++counters_.frames_provided;
  if (handle == last_handle_) ++counters_.frames_repeated;
  if (is_black(picture)) ++counters_.frames_black;
  if (last_time_ != Clock::time_point{} && now - last_time_ > period_ * 3 / 2) {
    ++counters_.frames_late;
  }
  last_handle_ = handle;
  last_time_ = now;
}

bool VideoTrack::provide(int rotation, const VideoFrame& frame, const void* handle) {
  const auto format = frame.pixel_format();
  if (!format || (rotation != 0 && rotation != 90 && rotation != 180 && rotation != 270)) {
    return false;
  }
  const bool upright = rotation == 0 || rotation == 180;
  const common::LockGuard lock(mutex_);
  if (!stream_) return true;
  const PictureRef picture = pool_.acquire(upright ? frame.width() : frame.height(),
                                           upright ? frame.height() : frame.width());
  if (!picture) {
    ++counters_.frames_provided;
    ++counters_.frames_dropped;
    return true;
  }
  if (!converter_.convert(*format, frame.width(), frame.height(), frame.buffer(), frame.size(),
                          rotation, picture->mutable_view())) {
    return false;
  }
  count(*picture, handle);
  stream_->on_picture(picture);
  return true;
}

}  // namespace sarnet
