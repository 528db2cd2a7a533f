#include "files/file_writers.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <new>
#include <utility>

namespace sarnet {
namespace {

// Makes the file's muxer with one stream; writes no header yet.
int create_output(const char* kind, const FileIo& file, OutputPtr& output) {
  AVFormatContext* context = nullptr;
  int status = avformat_alloc_output_context2(&context, nullptr, kind, nullptr);
  output.reset(context);
  if (status < 0) return status;
  if (avformat_new_stream(context, nullptr) == nullptr) return AVERROR(ENOMEM);
  // No program name in the file: the same media give the same bytes.
  context->flags |= AVFMT_FLAG_BITEXACT;
  context->pb = file.context();
  context->flags |= AVFMT_FLAG_CUSTOM_IO;
  return 0;
}

// Writes the file's trailer; reports a full disk as an error.
int finish_output(OutputPtr& output) {
  int status = av_write_trailer(output.get());
  avio_flush(output->pb);
  if (status >= 0 && output->pb->error < 0) status = output->pb->error;
  output.reset();
  return status;
}

}  // namespace

WavWriter::WavWriter(std::string path, AudioFormat format)
    : path_(std::move(path)), format_(format), packet_(av_packet_alloc()) {
  if (!packet_) throw std::bad_alloc();
}

WavWriter::~WavWriter() { close(); }

bool WavWriter::fail(int status) {
  fail(std::string());
  error_ = failure_text("write", path_, status);
  return false;
}

bool WavWriter::fail(const std::string& reason) {
  error_ = failure_text("write", path_, reason);
  output_.reset();
  file_.reset();
  return false;
}

bool WavWriter::open() {
  if (!format_.valid()) return fail(AVERROR(EINVAL));
  std::string reason;
  file_ = FileIo::create(path_, reason);
  if (!file_) return fail(reason);
  if (const int status = create_output("wav", *file_, output_); status < 0) return fail(status);
  AVCodecParameters& codec = *output_->streams[0]->codecpar;
  codec.codec_type = AVMEDIA_TYPE_AUDIO;
  codec.codec_id = AV_CODEC_ID_PCM_S16LE;
  codec.format = AV_SAMPLE_FMT_S16;
  codec.sample_rate = format_.rate;
  codec.bits_per_coded_sample = 16;
  codec.block_align = format_.channels * 2;
  codec.bit_rate = static_cast<std::int64_t>(format_.rate) * codec.block_align * 8;
  av_channel_layout_default(&codec.ch_layout, format_.channels);
  if (const int status = avformat_write_header(output_.get(), nullptr); status < 0) {
    return fail(status);
  }
  data_start_ = avio_tell(output_->pb);
  return state_length() || fail(output_->pb->error);
}

// Writes the current length into the header, so that the file is valid even if it is never closed.
bool WavWriter::state_length() {
  AVIOContext* file = output_->pb;
  const std::int64_t bytes = frames_ * format_.channels * 2;
  avio_seek(file, 4, SEEK_SET);
  avio_wl32(file, static_cast<unsigned>(data_start_ + bytes - 8));
  avio_seek(file, data_start_ - 4, SEEK_SET);
  avio_wl32(file, static_cast<unsigned>(bytes));
  avio_seek(file, data_start_ + bytes, SEEK_SET);
  avio_flush(file);
  stated_frames_ = frames_;
  return file->error >= 0;
}

bool WavWriter::write(std::span<const std::int16_t> samples) {
  if (!output_) return false;
  const auto channels = static_cast<std::size_t>(format_.channels);
  const std::size_t frames = samples.size() / channels;
  if (frames == 0) return true;
  // Lent: the muxer only reads it.
  packet_->data = reinterpret_cast<std::uint8_t*>(const_cast<std::int16_t*>(samples.data()));
  packet_->size = static_cast<int>(frames * channels * sizeof(std::int16_t));
  packet_->pts = packet_->dts = frames_;
  packet_->flags = AV_PKT_FLAG_KEY;
  const int status = av_write_frame(output_.get(), packet_.get());
  packet_->data = nullptr;
  packet_->size = 0;
  if (status < 0) return fail(status);
  frames_ += static_cast<std::int64_t>(frames);
  if (frames_ - stated_frames_ >= format_.rate && !state_length()) return fail(output_->pb->error);
  return true;
}

bool WavWriter::close() {
  if (output_) {
    if (const int status = finish_output(output_); status < 0) return fail(status);
  }
  return error_.empty();
}

Y4mWriter::Y4mWriter(std::string path, int width, int height, int fps)
    : path_(std::move(path)),
      width_(width),
      height_(height),
      fps_(fps),
      frame_(av_frame_alloc()),
      packet_(av_packet_alloc()) {
  if (!frame_ || !packet_) throw std::bad_alloc();
}

Y4mWriter::~Y4mWriter() { close(); }

bool Y4mWriter::fail(int status) {
  fail(std::string());
  error_ = failure_text("write", path_, status);
  return false;
}

bool Y4mWriter::fail(const std::string& reason) {
  error_ = failure_text("write", path_, reason);
  output_.reset();
  file_.reset();
  return false;
}

bool Y4mWriter::open() {
  if (width_ <= 0 || height_ <= 0 || fps_ <= 0) return fail(AVERROR(EINVAL));
  std::string reason;
  file_ = FileIo::create(path_, reason);
  if (!file_) return fail(reason);
  if (const int status = create_output("yuv4mpegpipe", *file_, output_); status < 0) {
    return fail(status);
  }
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_WRAPPED_AVFRAME);
  wrapper_.reset(avcodec_alloc_context3(codec));
  if (!wrapper_) return fail(AVERROR(ENOMEM));
  wrapper_->width = width_;
  wrapper_->height = height_;
  wrapper_->pix_fmt = AV_PIX_FMT_YUV420P;
  wrapper_->time_base = {1, fps_};
  frame_->format = AV_PIX_FMT_YUV420P;
  frame_->width = width_;
  frame_->height = height_;
  int status = avcodec_open2(wrapper_.get(), codec, nullptr);
  if (status >= 0) status = av_frame_get_buffer(frame_.get(), 0);
  AVStream& stream = *output_->streams[0];
  stream.time_base = wrapper_->time_base;
  stream.avg_frame_rate = {fps_, 1};
  if (status >= 0) status = avcodec_parameters_from_context(stream.codecpar, wrapper_.get());
  if (status >= 0) status = avformat_write_header(output_.get(), nullptr);
  return status >= 0 || fail(status);
}

bool Y4mWriter::write(const PictureView& picture) {
  if (!output_) return false;
  if (picture.width != width_ || picture.height != height_) return fail(AVERROR(EINVAL));
  int status = av_frame_make_writable(frame_.get());
  if (status >= 0) {
    const std::uint8_t* planes[4] = {picture.y, picture.u, picture.v, nullptr};
    const int strides[4] = {picture.stride_y, picture.stride_u, picture.stride_v, 0};
    av_image_copy(frame_->data, frame_->linesize, planes, strides, AV_PIX_FMT_YUV420P, width_,
                  height_);
    frame_->pts = pictures_++;
    status = avcodec_send_frame(wrapper_.get(), frame_.get());
  }
  if (status >= 0) status = avcodec_receive_packet(wrapper_.get(), packet_.get());
  if (status >= 0) {
    packet_->pts = packet_->dts =
        av_rescale_q(frame_->pts, wrapper_->time_base, output_->streams[0]->time_base);
    status = av_write_frame(output_.get(), packet_.get());
  }
  av_packet_unref(packet_.get());
  return status >= 0 || fail(status);
}

bool Y4mWriter::close() {
  if (output_) {
    if (const int status = finish_output(output_); status < 0) return fail(status);
  }
  return error_.empty();
}

}  // namespace sarnet
