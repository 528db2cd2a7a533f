#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "relay/stream_decoder.h"

namespace sarnet::relay {

namespace {

class AudioTaker final : public StreamDecoder {
 public:
  explicit AudioTaker(std::shared_ptr<MediaSink> sink) : sink_(std::move(sink)) {}

  void take(GstSample* sample) override {
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    int channels = 0;
    const GstCaps* caps = gst_sample_get_caps(sample);
    if (caps == nullptr ||
        gst_structure_get_int(gst_caps_get_structure(caps, 0), "channels", &channels) == FALSE ||
        channels < 1 || channels > 2) {
      return;
    }
    if (channels != format_.channels) {
      format_.channels = channels;
      filled_ = 0;
    }
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE) return;
    split({reinterpret_cast<const std::int16_t*>(map.data), map.size / sizeof(std::int16_t)});
    gst_buffer_unmap(buffer, &map);
  }

 private:
  void split(std::span<const std::int16_t> samples) {
    const auto block = static_cast<std::size_t>(format_.period_frames()) *
                       static_cast<std::size_t>(format_.channels);
    while (!samples.empty()) {
      if (filled_ == 0 && samples.size() >= block) {
        sink_->on_audio(format_, samples.first(block));
        samples = samples.subspan(block);
        continue;
      }
      const std::size_t part = std::min(block - filled_, samples.size());
      std::copy_n(samples.begin(), part, rest_.begin() + static_cast<std::ptrdiff_t>(filled_));
      samples = samples.subspan(part);
      filled_ += part;
      if (filled_ == block) {
        filled_ = 0;
        sink_->on_audio(format_, std::span(rest_).first(block));
      }
    }
  }

  const std::shared_ptr<MediaSink> sink_;
  AudioFormat format_{48000, 2};
  // The beginning of a block, whose end is still to come.
  std::array<std::int16_t, 960> rest_{};
  std::size_t filled_ = 0;
};

}  // namespace

std::unique_ptr<StreamDecoder> make_audio_taker(std::shared_ptr<MediaSink> sink) {
  return std::make_unique<AudioTaker>(std::move(sink));
}

}  // namespace sarnet::relay
