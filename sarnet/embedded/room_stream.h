#pragma once

#include <memory>
#include <vector>

#include "base/engine.h"
#include "common/mutex.h"
#include "embedded/recorder.h"

namespace sarnet {

// One published stream: hands its media to everyone who subscribed, and what the program publishes
// to the recorder too. Any thread; media wait for no subscriber and no disk.
class RoomStream : public PublishedStream {
 public:
  explicit RoomStream(StreamInfo info);
  // A stream of the program, which is recorded.
  RoomStream(StreamInfo info, std::shared_ptr<Recorder> recorder, int recording);

  const StreamInfo& info() const { return info_; }
  bool watched() const;
  // Tells the sink that it is subscribed; media follow from then on.
  void add(std::shared_ptr<SubscriptionSink> sink);
  void remove(const MediaSink* sink);
  // No subscriber gets media afterwards, and the recording is complete.
  void close();

  void on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) override;
  void on_picture(const PictureRef& picture) override;
  void on_caption(std::string_view text, bool is_final) override;
  void on_captured_audio(const AudioFormat& format, std::span<const std::int16_t> samples) override;

 private:
  const StreamInfo info_;
  const std::shared_ptr<Recorder> recorder_;  // null: not recorded
  const int recording_ = 0;
  mutable common::Mutex mutex_;
  std::vector<std::shared_ptr<MediaSink>> sinks_ GUARDED_BY(mutex_);
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace sarnet
