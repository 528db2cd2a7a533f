#include "relay/media/codecs/video_decoder.h"

#include <bit>
#include <cstddef>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
}

namespace sarnet::relay {
namespace {

// Before the decoder allocates anything for a picture.
int refuse_large(AVCodecContext* context, AVFrame* frame, int flags) {
  if (frame->width > kMaxPictureSide || frame->height > kMaxPictureSide) return AVERROR(EINVAL);
  return avcodec_default_get_buffer2(context, frame, flags);
}

void copy_plane(const AVFrame& frame, int plane, std::uint8_t* target, int stride, int width,
                int height) {
  for (int row = 0; row < height; ++row) {
    std::memcpy(target + static_cast<std::ptrdiff_t>(row) * stride,
                frame.data[plane] + static_cast<std::ptrdiff_t>(row) * frame.linesize[plane],
                static_cast<std::size_t>(width));
  }
}

}  // namespace

void VideoDecoder::Free::operator()(AVCodecContext* context) const {
  avcodec_free_context(&context);
}
void VideoDecoder::Free::operator()(AVFrame* frame) const { av_frame_free(&frame); }
void VideoDecoder::Free::operator()(AVPacket* packet) const { av_packet_free(&packet); }
void VideoDecoder::Free::operator()(AVBufferPool* pool) const { av_buffer_pool_uninit(&pool); }

VideoDecoder::VideoDecoder() : frame_(av_frame_alloc()), packet_(av_packet_alloc()) {}

VideoDecoder::~VideoDecoder() = default;

bool VideoDecoder::open(VideoCodec codec) {
  context_.reset();
  const AVCodec* const found =
      avcodec_find_decoder(codec == VideoCodec::kVp8 ? AV_CODEC_ID_VP8 : AV_CODEC_ID_H264);
  if (found == nullptr || !frame_ || !packet_) return false;
  context_.reset(avcodec_alloc_context3(found));
  if (!context_) return false;
  // On the caller's thread, each picture as soon as its frame is here.
  context_->thread_count = 1;
  context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
  context_->max_pixels = std::int64_t{kMaxPictureSide} * kMaxPictureSide;
  context_->get_buffer2 = &refuse_large;
  // What damaged frames hold is the server's, and none of our log's business.
  context_->log_level_offset = AV_LOG_MAX_OFFSET;
  if (avcodec_open2(context_.get(), found, nullptr) < 0) context_.reset();
  return context_ != nullptr;
}

bool VideoDecoder::fill_packet(std::span<const std::uint8_t> frame) {
  const std::size_t needed = frame.size() + AV_INPUT_BUFFER_PADDING_SIZE;
  if (needed > packet_size_) {
    packet_size_ = std::bit_ceil(needed);
    packets_.reset(av_buffer_pool_init(packet_size_, nullptr));
  }
  av_packet_unref(packet_.get());
  packet_->buf = packets_ ? av_buffer_pool_get(packets_.get()) : nullptr;
  if (packet_->buf == nullptr) return false;
  packet_->data = packet_->buf->data;
  packet_->size = static_cast<int>(frame.size());
  std::memcpy(packet_->data, frame.data(), frame.size());
  std::memset(packet_->data + frame.size(), 0, AV_INPUT_BUFFER_PADDING_SIZE);
  return true;
}

VideoDecoder::Outcome VideoDecoder::decode(std::span<const std::uint8_t> frame,
                                           PictureRef& picture) {
  if (!context_ || !fill_packet(frame)) return Outcome::kDamaged;
  const int sent = avcodec_send_packet(context_.get(), packet_.get());
  av_packet_unref(packet_.get());
  if (sent < 0) return Outcome::kDamaged;
  Outcome outcome = Outcome::kNothing;
  while (avcodec_receive_frame(context_.get(), frame_.get()) == 0) {
    const bool usable =
        frame_->decode_error_flags == 0 && (frame_->flags & AV_FRAME_FLAG_CORRUPT) == 0 &&
        (frame_->format == AV_PIX_FMT_YUV420P || frame_->format == AV_PIX_FMT_YUVJ420P);
    outcome = usable ? Outcome::kPicture : Outcome::kDamaged;
    if (usable) picture = copy();
    av_frame_unref(frame_.get());
  }
  return outcome;
}

PictureRef VideoDecoder::copy() {
  PictureRef picture = pool_.acquire(frame_->width, frame_->height);
  if (!picture) return picture;
  const MutablePictureView to = picture->mutable_view();
  copy_plane(*frame_, 0, to.y, to.stride_y, to.width, to.height);
  copy_plane(*frame_, 1, to.u, to.stride_u, chroma_size(to.width), chroma_size(to.height));
  copy_plane(*frame_, 2, to.v, to.stride_v, chroma_size(to.width), chroma_size(to.height));
  return picture;
}

}  // namespace sarnet::relay
