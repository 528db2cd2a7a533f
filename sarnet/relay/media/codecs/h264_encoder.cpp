#include "relay/media/codecs/h264_encoder.h"

#include <algorithm>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/opt.h>
}

namespace sarnet::relay {
namespace {

struct Free {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

class H264Encoder final : public VideoEncoder {
 public:
  H264Encoder(const AVCodec& codec, int fps)
      : codec_(codec),
        fps_(std::max(fps, 1)),
        frame_(av_frame_alloc()),
        packet_(av_packet_alloc()) {}

  bool encode(const PictureView& picture, std::uint64_t bitrate, bool key_frame,
              const Output& output) override {
    const int width = picture.width & ~1;
    const int height = picture.height & ~1;
    if (width == 0 || height == 0 || !frame_ || !packet_ || !adapt(width, height, bitrate)) {
      return false;
    }
    AVFrame& frame = *frame_;
    frame.format = AV_PIX_FMT_YUV420P;
    frame.width = width;
    frame.height = height;
    frame.data[0] = const_cast<std::uint8_t*>(picture.y);
    frame.data[1] = const_cast<std::uint8_t*>(picture.u);
    frame.data[2] = const_cast<std::uint8_t*>(picture.v);
    frame.linesize[0] = picture.stride_y;
    frame.linesize[1] = picture.stride_u;
    frame.linesize[2] = picture.stride_v;
    frame.pts = count_++;
    frame.pict_type = key_frame ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    if (avcodec_send_frame(context_.get(), &frame) < 0) return false;
    while (avcodec_receive_packet(context_.get(), packet_.get()) == 0) {
      output({packet_->data, static_cast<std::size_t>(packet_->size)});
      av_packet_unref(packet_.get());
    }
    return true;
  }

 private:
  bool adapt(int width, int height, std::uint64_t bitrate) {
    const auto bits = static_cast<std::int64_t>(bitrate);
    if (context_ && context_->width == width && context_->height == height) {
      // libx264 is told when they differ from what it has.
      context_->bit_rate = context_->rc_max_rate = bits;
      context_->rc_buffer_size = static_cast<int>(bits / 2);
      return true;
    }
    context_.reset(avcodec_alloc_context3(&codec_));
    if (!context_) return false;
    context_->width = width;
    context_->height = height;
    context_->pix_fmt = AV_PIX_FMT_YUV420P;
    context_->time_base = {1, fps_};
    context_->framerate = {fps_, 1};
    context_->gop_size = 3000;
    context_->max_b_frames = 0;
    context_->thread_count = 1;
    context_->bit_rate = context_->rc_max_rate = bits;
    context_->rc_buffer_size = static_cast<int>(bits / 2);
    context_->log_level_offset = AV_LOG_MAX_OFFSET;
    av_opt_set(context_->priv_data, "preset", "superfast", 0);
    av_opt_set(context_->priv_data, "tune", "zerolatency", 0);
    av_opt_set(context_->priv_data, "profile", "baseline", 0);
    av_opt_set(context_->priv_data, "forced-idr", "1", 0);
    if (avcodec_open2(context_.get(), &codec_, nullptr) < 0) context_.reset();
    return context_ != nullptr;
  }

  const AVCodec& codec_;
  const int fps_;
  std::unique_ptr<AVCodecContext, Free> context_;
  std::unique_ptr<AVFrame, Free> frame_;
  std::unique_ptr<AVPacket, Free> packet_;
  std::int64_t count_ = 0;
};

}  // namespace

std::unique_ptr<VideoEncoder> make_h264_encoder(int fps) {
  const AVCodec* const codec = avcodec_find_encoder_by_name("libx264");
  return codec != nullptr ? std::make_unique<H264Encoder>(*codec, fps) : nullptr;
}

}  // namespace sarnet::relay
