#include "embedded/room_stream.h"

#include <algorithm>
#include <utility>

namespace sarnet {

RoomStream::RoomStream(StreamInfo info) : info_(std::move(info)) {}

RoomStream::RoomStream(StreamInfo info, std::shared_ptr<Recorder> recorder, int recording)
    : info_(std::move(info)), recorder_(std::move(recorder)), recording_(recording) {}

bool RoomStream::watched() const {
  const common::LockGuard lock(mutex_);
  return !sinks_.empty();
}

void RoomStream::add(std::shared_ptr<SubscriptionSink> sink) {
  const common::LockGuard lock(mutex_);
  // Under the lock: no media precede the event, and a program that reacts to it misses none.
  sink->subscribed();
  if (!closed_) sinks_.push_back(std::move(sink));
}

void RoomStream::remove(const MediaSink* sink) {
  std::shared_ptr<MediaSink> gone;
  const common::LockGuard lock(mutex_);
  const auto found = std::find_if(sinks_.begin(), sinks_.end(),
                                  [&](const auto& each) { return each.get() == sink; });
  if (found == sinks_.end()) return;
  gone = std::move(*found);
  sinks_.erase(found);
}

void RoomStream::close() {
  std::vector<std::shared_ptr<MediaSink>> gone;
  const common::LockGuard lock(mutex_);
  if (closed_) return;
  closed_ = true;
  gone.swap(sinks_);
  if (recorder_) recorder_->end_publication(recording_);
}

void RoomStream::on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) {
  const common::LockGuard lock(mutex_);
  for (const auto& sink : sinks_) sink->on_audio(format, samples);
}

void RoomStream::on_picture(const PictureRef& picture) {
  const common::LockGuard lock(mutex_);
  if (recorder_ && !closed_) recorder_->add_picture(recording_, picture);
  for (const auto& sink : sinks_) sink->on_picture(picture);
}

void RoomStream::on_caption(std::string_view text, bool is_final) {
  const common::LockGuard lock(mutex_);
  for (const auto& sink : sinks_) sink->on_caption(text, is_final);
}

void RoomStream::on_captured_audio(const AudioFormat& format,
                                   std::span<const std::int16_t> samples) {
  const common::LockGuard lock(mutex_);
  if (recorder_ && !closed_) recorder_->add_audio(recording_, format, samples);
}

}  // namespace sarnet
