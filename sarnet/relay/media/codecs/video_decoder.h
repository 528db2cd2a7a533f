#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "base/picture.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct AVBufferPool;

namespace sarnet::relay {

enum class VideoCodec { kVp8, kH264 };

// The largest picture that is decoded, in either direction.
inline constexpr int kMaxPictureSide = 8192;

// Decodes the frames of one stream, one at a time, on the caller's thread. Pictures are I420,
// copied once out of the decoder's own.
class VideoDecoder {
 public:
  VideoDecoder();
  ~VideoDecoder();
  VideoDecoder(const VideoDecoder&) = delete;
  VideoDecoder& operator=(const VideoDecoder&) = delete;

  // Makes it a decoder of that codec, that knows nothing; false when there is none to be had.
  bool open(VideoCodec codec);

  enum class Outcome {
    kPicture,  // `picture` is set; empty when the program holds too many
    kNothing,  // no picture yet
    kDamaged,  // needs a key frame to go on
  };
  Outcome decode(std::span<const std::uint8_t> frame, PictureRef& picture);

 private:
  struct Free {
    void operator()(AVCodecContext* context) const;
    void operator()(AVFrame* frame) const;
    void operator()(AVPacket* packet) const;
    void operator()(AVBufferPool* pool) const;
  };
  // What a slow program may hold, and one or two under way.
  static constexpr std::size_t kPictures = 12;

  bool fill_packet(std::span<const std::uint8_t> frame);
  PictureRef copy();

  std::unique_ptr<AVCodecContext, Free> context_;
  std::unique_ptr<AVFrame, Free> frame_;
  std::unique_ptr<AVPacket, Free> packet_;
  std::unique_ptr<AVBufferPool, Free> packets_;  // memory for frames up to packet_size_
  std::size_t packet_size_ = 0;
  PicturePool pool_{kPictures};
};

}  // namespace sarnet::relay
