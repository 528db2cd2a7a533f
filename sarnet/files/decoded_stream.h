#pragma once

#include <memory>
#include <string>
#include <utility>

#include "files/file_io.h"
#include "plugins/file_plugin.h"

namespace sarnet {

// The decoded frames of a file's best audio or video stream, one after the other. One thread at a
// time.
class DecodedStream {
 public:
  // Limit for decoding in a fraction of a second and 100 MB; 8K video and large photographs fit.
  static constexpr int kMaxSide = 8192;

  // Once `interrupted` gives true, all below fail soon.
  explicit DecodedStream(Interrupted interrupted) : interrupted_(std::move(interrupted)) {}

  // Opens the file, or reopens it from the start. False and error() on failure; then only open()
  // may be called.
  bool open(const std::string& path, AVMediaType kind);

  // The next frame, owned by this object until the next call. Damaged packets are skipped.
  ReadStatus next(AVFrame*& frame);

  const AVCodecContext& codec() const { return *codec_; }
  const AVStream& stream() const { return *stream_; }
  double duration() const;  // seconds, 0 when unknown
  const std::string& error() const { return error_; }

 private:
  bool fail(int status);
  bool fail(const std::string& reason);
  int find_streams();

  const Interrupted interrupted_;
  std::string path_;
  std::string error_;
  std::unique_ptr<FileIo> file_;  // outlives input_
  InputPtr input_;
  AVStream* stream_ = nullptr;  // of input_
  CodecPtr codec_;
  PacketPtr packet_;
  FramePtr frame_;
  bool draining_ = false;
};

}  // namespace sarnet
