#include "files/decoded_stream.h"

#include <algorithm>
#include <new>
#include <vector>

namespace sarnet {
namespace {

// Cover art before sound, fonts before a film and the like are far smaller.
constexpr std::int64_t kMaxHeader = 64 << 20;
// Of a coded block of sound; converted, it stays below 100 MB.
constexpr int kMaxSamples = 1 << 20;
// After its last packet, a decoder that only reports errors never ends.
constexpr int kMaxComplaints = 1000;

// Playlists of other files are refused: those could be pipes, or remote.
int open_no_other(AVFormatContext* input, AVIOContext** /*other*/, const char* /*url*/,
                  int /*flags*/, AVDictionary** /*options*/) {
  static_cast<FileIo*>(input->opaque)->refuse();
  return AVERROR(EPERM);
}

}  // namespace

std::string failure_text(const char* action, const std::string& path, const std::string& reason) {
  return std::string("cannot ") + action + " '" + path + "': " + reason;
}

std::string failure_text(const char* action, const std::string& path, int status) {
  char reason[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(status, reason, sizeof reason);
  return failure_text(action, path, std::string(reason));
}

bool DecodedStream::fail(int status) {
  if (file_ && file_->refused()) return fail("it names other files");
  if (file_ && file_->exhausted()) {
    return fail("there is no sound or picture in its first " + std::to_string(kMaxHeader >> 20) +
                " MiB");
  }
  error_ = failure_text("read", path_, status);
  return false;
}

bool DecodedStream::fail(const std::string& reason) {
  error_ = failure_text("read", path_, reason);
  return false;
}

// Decodes enough of each stream to identify it, within the same bounds as later.
int DecodedStream::find_streams() {
  const unsigned count = input_->nb_streams;
  std::vector<AVDictionary*> bounds(std::max(count, 1U));
  for (AVDictionary*& each : bounds) {
    av_dict_set_int(&each, "max_pixels", std::int64_t{kMaxSide} * kMaxSide, 0);
    av_dict_set_int(&each, "max_samples", kMaxSamples, 0);
    av_dict_set_int(&each, "threads", 1, 0);
  }
  const int status = avformat_find_stream_info(input_.get(), bounds.data());
  for (AVDictionary*& each : bounds) av_dict_free(&each);
  return status;
}

bool DecodedStream::open(const std::string& path, AVMediaType kind) {
  path_ = path;
  error_.clear();
  codec_.reset();
  input_.reset();
  file_.reset();
  draining_ = false;
  packet_.reset(av_packet_alloc());
  frame_.reset(av_frame_alloc());
  if (!packet_ || !frame_) throw std::bad_alloc();

  std::string reason;
  file_ = FileIo::open(path, interrupted_, reason);
  if (!file_) return fail(reason);
  file_->limit(kMaxHeader);
  AVFormatContext* input = avformat_alloc_context();
  if (input == nullptr) throw std::bad_alloc();
  input->pb = file_->context();
  input->opaque = file_.get();
  input->io_open = &open_no_other;
  input->interrupt_callback = {
      [](void* file) { return static_cast<FileIo*>(file)->interrupted() ? 1 : 0; }, file_.get()};
  if (const int status = avformat_open_input(&input, ("file:" + path).c_str(), nullptr, nullptr);
      status < 0) {
    return fail(status);
  }
  input_.reset(input);
  if (const int status = find_streams(); status < 0) return fail(status);
  const AVCodec* decoder = nullptr;
  const int index = av_find_best_stream(input, kind, -1, -1, &decoder, 0);
  if (index == AVERROR_STREAM_NOT_FOUND) {
    return fail(std::string("there is no ") + av_get_media_type_string(kind) + " in it");
  }
  if (index < 0) return fail(index);
  stream_ = input->streams[index];
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    input->streams[i]->discard = static_cast<int>(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  }
  if (const auto& size = *stream_->codecpar;
      kind == AVMEDIA_TYPE_VIDEO && std::max(size.width, size.height) > kMaxSide) {
    return fail("pictures of " + std::to_string(size.width) + "x" + std::to_string(size.height) +
                " are beyond " + std::to_string(kMaxSide) + "x" + std::to_string(kMaxSide));
  }
  codec_.reset(avcodec_alloc_context3(decoder));
  if (!codec_) throw std::bad_alloc();
  avcodec_parameters_to_context(codec_.get(), stream_->codecpar);
  codec_->pkt_timebase = stream_->time_base;
  codec_->thread_count = 1;
  codec_->max_pixels = std::int64_t{kMaxSide} * kMaxSide;
  codec_->max_samples = kMaxSamples;
  if (const int status = avcodec_open2(codec_.get(), decoder, nullptr); status < 0) {
    return fail(status);
  }
  file_->limit(-1);
  return true;
}

ReadStatus DecodedStream::next(AVFrame*& frame) {
  for (int complaints = 0;;) {
    if (file_->interrupted()) {
      fail(AVERROR_EXIT);
      return ReadStatus::kError;
    }
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
      if (++complaints > kMaxComplaints) return ReadStatus::kEnd;
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
    // A refused packet is damaged; the next may be intact.
    if (packet_->stream_index == stream_->index) avcodec_send_packet(codec_.get(), packet_.get());
    av_packet_unref(packet_.get());
  }
}

double DecodedStream::duration() const {
  return input_ && input_->duration > 0 ? static_cast<double>(input_->duration) / AV_TIME_BASE : 0;
}

}  // namespace sarnet
