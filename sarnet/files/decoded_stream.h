#pragma once

#include <string>

#include "files/ffmpeg_handles.h"
#include "plugins/file_plugin.h"

namespace sarnet {

// The decoded frames of a file's best audio or video stream, one after the other. One thread at a
// time.
class DecodedStream {
 public:
  // Opens the file, or opens it anew from the start. False and error() on failure; the object is
  // then only good for another open().
  bool open(const std::string& path, AVMediaType kind);

  // The next frame, owned by this object until the next call. Damaged packets are skipped.
  ReadStatus next(AVFrame*& frame);

  const AVCodecContext& codec() const { return *codec_; }
  const AVStream& stream() const { return *stream_; }
  double duration() const;  // seconds, 0 when unknown
  const std::string& error() const { return error_; }

 private:
  bool fail(int status);

  std::string path_;
  std::string error_;
  InputPtr input_;
  AVStream* stream_ = nullptr;  // of input_
  CodecPtr codec_;
  PacketPtr packet_;
  FramePtr frame_;
  bool draining_ = false;
};

}  // namespace sarnet
