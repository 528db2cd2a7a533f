#include "files/video_file_reader.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>

namespace sarnet {
namespace {

constexpr double kStillFps = 30;
constexpr int kMaxSide = DecodedStream::kMaxSide;
// Many formats have timestamps in milliseconds, and slow motion is filmed at up to 1000 fps.
constexpr int kMaxFps = 1000;
// Timestamps of many formats are rounded to milliseconds.
constexpr double kTimeTolerance = 0.0015;

bool is_full_range(const AVFrame& picture) {
  return picture.color_range == AVCOL_RANGE_JPEG || picture.format == AV_PIX_FMT_YUVJ420P ||
         picture.format == AV_PIX_FMT_YUVJ422P || picture.format == AV_PIX_FMT_YUVJ444P ||
         picture.format == AV_PIX_FMT_YUVJ440P;
}

FramePtr new_frame() {
  FramePtr frame(av_frame_alloc());
  if (!frame) throw std::bad_alloc();
  return frame;
}

void copy_planes(const AVFrame& source, const MutablePictureView& target) {
  const int chroma_width = chroma_size(target.width);
  const int chroma_height = chroma_size(target.height);
  av_image_copy_plane(target.y, target.stride_y, source.data[0], source.linesize[0], target.width,
                      target.height);
  av_image_copy_plane(target.u, target.stride_u, source.data[1], source.linesize[1], chroma_width,
                      chroma_height);
  av_image_copy_plane(target.v, target.stride_v, source.data[2], source.linesize[2], chroma_width,
                      chroma_height);
}

}  // namespace

VideoFileReader::VideoFileReader(std::string path, int width, int height, double fps, bool loop,
                                 Interrupted interrupted)
    : path_(std::move(path)),
      width_(width),
      height_(height),
      fps_(fps),
      loop_(loop),
      stream_(std::move(interrupted)),
      shown_(new_frame()),
      next_(new_frame()),
      scaled_(new_frame()) {}

ReadStatus VideoFileReader::fail(const std::string& error) {
  error_ = error;
  failed_ = true;
  return ReadStatus::kError;
}

bool VideoFileReader::open() {
  if (!start_round()) return false;
  still_ = !has_next_;
  return fill_in_defaults();
}

// With uneven pictures the guessed rate may be that of the timestamps; the mean rate is not.
bool VideoFileReader::find_frame_rate() {
  const AVRational guess =
      av_guess_frame_rate(nullptr, const_cast<AVStream*>(&stream_.stream()), nullptr);
  double least = INFINITY;
  for (const AVRational& rate : {guess, stream_.stream().avg_frame_rate}) {
    if (rate.num > 0 && rate.den > 0) least = std::min(least, av_q2d(rate));
  }
  if (std::isinf(least)) return true;
  if (least > kMaxFps) {
    fail(failure_text("read", path_,
                      "frame rate " + std::to_string(std::llround(least)) + " is beyond " +
                          std::to_string(kMaxFps)));
    return false;
  }
  frame_seconds_ =
      1 / (guess.den > 0 && av_q2d(guess) > 0 && av_q2d(guess) <= kMaxFps ? av_q2d(guess) : least);
  return true;
}

// Opens the file from its start and decodes the picture to show and the one after it.
bool VideoFileReader::start_round() {
  if (!stream_.open(path_, AVMEDIA_TYPE_VIDEO)) {
    fail(stream_.error());
    return false;
  }
  if (!find_frame_rate()) return false;
  next_time_ = -frame_seconds_;
  first_timestamp_ = NAN;
  has_next_ = false;
  ReadStatus status = advance();
  if (status == ReadStatus::kOk && has_next_) {
    status = advance();
  } else if (status != ReadStatus::kError) {
    status = fail(failure_text("read", path_, "there is no picture in it"));
  }
  return status != ReadStatus::kError;
}

// Shows the next picture, if there is one, and decodes the one after it. kEnd when there is none
// after it.
ReadStatus VideoFileReader::advance() {
  if (has_next_) {
    std::swap(shown_, next_);
    scaled_is_shown_ = false;
  }
  AVFrame* frame = nullptr;
  const ReadStatus status = stream_.next(frame);
  has_next_ = status == ReadStatus::kOk;
  if (status == ReadStatus::kError) return fail(stream_.error());
  if (!has_next_) return ReadStatus::kEnd;
  const double previous = next_time_;
  const std::int64_t stamp = frame->best_effort_timestamp;
  next_time_ = previous + frame_seconds_;
  if (stamp != AV_NOPTS_VALUE) {
    const double seconds = static_cast<double>(stamp) * av_q2d(stream_.stream().time_base);
    if (std::isnan(first_timestamp_)) first_timestamp_ = seconds;
    next_time_ = std::max(previous, seconds - first_timestamp_);
  }
  av_frame_unref(next_.get());
  av_frame_move_ref(next_.get(), frame);
  return ReadStatus::kOk;
}

bool VideoFileReader::fill_in_defaults() {
  const AVFrame& first = *shown_;
  const auto scaled_side = [](int other, int wanted, int own) {
    return std::max(1, static_cast<int>(std::lround(static_cast<double>(own) * wanted / other)));
  };
  if (width_ <= 0 && height_ <= 0) {
    width_ = first.width;
    height_ = first.height;
  } else if (width_ <= 0) {
    width_ = scaled_side(first.height, height_, first.width);
  } else if (height_ <= 0) {
    height_ = scaled_side(first.width, width_, first.height);
  }
  if (!(fps_ > 0)) {
    fps_ = still_ ? kStillFps : 1.0 / frame_seconds_;
  }
  if (width_ > kMaxSide || height_ > kMaxSide || !(fps_ <= kMaxFps)) {
    fail(failure_text("read", path_,
                      "pictures of " + std::to_string(width_) + "x" + std::to_string(height_) +
                          " are too large, or too many"));
    return false;
  }
  return true;
}

bool VideoFileReader::scale(const AVFrame& picture) {
  scaler_.reset(sws_getCachedContext(scaler_.release(), picture.width, picture.height,
                                     static_cast<AVPixelFormat>(picture.format), width_, height_,
                                     AV_PIX_FMT_YUV420P, SWS_BICUBIC | SWS_ACCURATE_RND, nullptr,
                                     nullptr, nullptr));
  if (!scaler_) {
    fail(failure_text("scale the picture of", path_, AVERROR(EINVAL)));
    return false;
  }
  const int* source_colours =
      sws_getCoefficients(picture.colorspace == AVCOL_SPC_BT709 ? SWS_CS_ITU709 : SWS_CS_ITU601);
  sws_setColorspaceDetails(scaler_.get(), source_colours, is_full_range(picture) ? 1 : 0,
                           sws_getCoefficients(SWS_CS_ITU601), 0, 0, 1 << 16, 1 << 16);
  if (scaled_->data[0] == nullptr) {
    scaled_->format = AV_PIX_FMT_YUV420P;
    scaled_->width = width_;
    scaled_->height = height_;
    if (av_frame_get_buffer(scaled_.get(), 0) < 0) throw std::bad_alloc();
  }
  sws_scale(scaler_.get(), picture.data, picture.linesize, 0, picture.height, scaled_->data,
            scaled_->linesize);
  scaled_is_shown_ = true;
  return true;
}

ReadStatus VideoFileReader::read(const MutablePictureView& target) {
  if (failed_) return ReadStatus::kError;
  if (target.width != width_ || target.height != height_) {
    return fail(failure_text("read", path_, "a picture of another size was asked for"));
  }
  if (still_ && reads_ > 0 && !loop_) return ReadStatus::kEnd;
  const double now = static_cast<double>(reads_) / fps_;
  while (!still_) {
    if (has_next_ && round_start_ + next_time_ <= now + kTimeTolerance) {
      if (advance() == ReadStatus::kError) return ReadStatus::kError;
      continue;
    }
    const double round_end = round_start_ + next_time_ + frame_seconds_;
    if (has_next_ || now + kTimeTolerance < round_end) break;
    if (!loop_) return ReadStatus::kEnd;
    if (round_end - round_start_ < kShortestRound) {
      return fail(failure_text("read", path_, "it is too short to be repeated, less than 10 ms"));
    }
    round_start_ = round_end;
    if (!start_round()) return ReadStatus::kError;
  }
  ++reads_;

  const bool as_it_is = shown_->format == AV_PIX_FMT_YUV420P && !is_full_range(*shown_) &&
                        shown_->width == width_ && shown_->height == height_;
  if (!as_it_is && !scaled_is_shown_ && !scale(*shown_)) return ReadStatus::kError;
  copy_planes(as_it_is ? *shown_ : *scaled_, target);
  return ReadStatus::kOk;
}

}  // namespace sarnet
