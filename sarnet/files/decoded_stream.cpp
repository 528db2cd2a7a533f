#include "files/decoded_stream.h"

#include <new>

namespace sarnet {

std::string failure_text(const char* action, const std::string& path, const std::string& reason) {
  return std::string("cannot ") + action + " '" + path + "': " + reason;
}

std::string failure_text(const char* action, const std::string& path, int status) {
  char reason[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(status, reason, sizeof reason);
  return failure_text(action, path, std::string(reason));
}

bool DecodedStream::fail(int status) {
  error_ = failure_text("read", path_, status);
  return false;
}

bool DecodedStream::open(const std::string& path, AVMediaType kind) {
  path_ = path;
  error_.clear();
  codec_.reset();
  input_.reset();
  draining_ = false;
  packet_.reset(av_packet_alloc());
  frame_.reset(av_frame_alloc());
  if (!packet_ || !frame_) {
    throw std::bad_alloc();
  }

  // The protocol is named, so that a path with a colon is a path and nothing is fetched from
  // elsewhere.
  AVFormatContext* input = nullptr;
  if (const int status = avformat_open_input(&input, ("file:" + path).c_str(), nullptr, nullptr);
      status < 0) {
    return fail(status);
  }
  input_.reset(input);
  if (const int status = avformat_find_stream_info(input, nullptr); status < 0) {
    return fail(status);
  }
  const AVCodec* decoder = nullptr;
  const int index = av_find_best_stream(input, kind, -1, -1, &decoder, 0);
  if (index == AVERROR_STREAM_NOT_FOUND) {
    error_ = failure_text("read", path_,
                          std::string("there is no ") + av_get_media_type_string(kind) + " in it");
    return false;
  }
  if (index < 0) {
    return fail(index);
  }
  stream_ = input->streams[index];
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    input->streams[i]->discard = static_cast<int>(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  }
  codec_.reset(avcodec_alloc_context3(decoder));
  if (!codec_) {
    throw std::bad_alloc();
  }
  avcodec_parameters_to_context(codec_.get(), stream_->codecpar);
  codec_->pkt_timebase = stream_->time_base;
  codec_->thread_count = 1;
  if (const int status = avcodec_open2(codec_.get(), decoder, nullptr); status < 0) {
    return fail(status);
  }
  return true;
}

ReadStatus DecodedStream::next(AVFrame*& frame) {
  while (true) {
    const int received = avcodec_receive_frame(codec_.get(), frame_.get());
    if (received >= 0) {
      frame = frame_.get();
      return ReadStatus::kOk;
    }
    if (received == AVERROR_EOF || (draining_ && received == AVERROR(EAGAIN))) {
      return ReadStatus::kEnd;
    }
    if (received != AVERROR(EAGAIN) && received != AVERROR_INVALIDDATA) {
      fail(received);
      return ReadStatus::kError;
    }
    if (draining_) {
      continue;
    }
    const int status = av_read_frame(input_.get(), packet_.get());
    if (status == AVERROR_EOF) {
      draining_ = true;
      avcodec_send_packet(codec_.get(), nullptr);
      continue;
    }
    if (status < 0) {
      fail(status);
      return ReadStatus::kError;
    }
    // What the decoder refuses is damaged; the next packet may be sound.
    if (packet_->stream_index == stream_->index) {
      avcodec_send_packet(codec_.get(), packet_.get());
    }
    av_packet_unref(packet_.get());
  }
}

double DecodedStream::duration() const {
  return input_ && input_->duration > 0 ? static_cast<double>(input_->duration) / AV_TIME_BASE : 0;
}

}  // namespace sarnet
