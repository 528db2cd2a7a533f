#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

namespace sarnet {

// Owners of FFmpeg's objects, each freed by its library's function.
struct FfmpegDeleter {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(SwrContext* context) const { swr_free(&context); }
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};
struct InputDeleter {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct OutputDeleter {
  void operator()(AVFormatContext* context) const { avformat_free_context(context); }
};

using PacketPtr = std::unique_ptr<AVPacket, FfmpegDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FfmpegDeleter>;
using CodecPtr = std::unique_ptr<AVCodecContext, FfmpegDeleter>;
using SwrPtr = std::unique_ptr<SwrContext, FfmpegDeleter>;
using SwsPtr = std::unique_ptr<SwsContext, FfmpegDeleter>;
using InputPtr = std::unique_ptr<AVFormatContext, InputDeleter>;
using OutputPtr = std::unique_ptr<AVFormatContext, OutputDeleter>;

// "cannot read '/some/file': reason"
std::string failure_text(const char* action, const std::string& path, int status);
std::string failure_text(const char* action, const std::string& path, const std::string& reason);

}  // namespace sarnet
