#include <gst/rtp/rtp.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "relay/media/codecs/opus_stream.h"
#include "relay/peer/stream_decoder.h"

namespace sarnet::relay {

namespace {

class AudioTaker final : public StreamDecoder {
 public:
  AudioTaker(std::shared_ptr<MediaSink> sink, int channels)
      : sink_(std::move(sink)),
        stream_(channels, [this](const AudioFormat& format, std::span<const std::int16_t> samples) {
          split(format, samples);
        }) {}

  void take(GstSample* sample) override {
    GstRTPBuffer packet = GST_RTP_BUFFER_INIT;
    if (gst_rtp_buffer_map(gst_sample_get_buffer(sample), GST_MAP_READ, &packet) == FALSE) return;
    stream_.take(gst_rtp_buffer_get_seq(&packet), gst_rtp_buffer_get_timestamp(&packet),
                 {static_cast<const std::uint8_t*>(gst_rtp_buffer_get_payload(&packet)),
                  gst_rtp_buffer_get_payload_len(&packet)});
    gst_rtp_buffer_unmap(&packet);
  }

 private:
  void split(const AudioFormat& format, std::span<const std::int16_t> samples) {
    if (format != format_) {
      format_ = format;
      filled_ = 0;
    }
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
  OpusStream stream_;
  AudioFormat format_{48000, 2};
  // The beginning of a block, whose end is still to come.
  std::array<std::int16_t, 960> rest_{};
  std::size_t filled_ = 0;
};

}  // namespace

std::unique_ptr<StreamDecoder> make_audio_taker(std::shared_ptr<MediaSink> sink, int channels) {
  return std::make_unique<AudioTaker>(std::move(sink), channels);
}

}  // namespace sarnet::relay
