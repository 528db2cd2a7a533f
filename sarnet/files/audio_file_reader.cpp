#include "files/audio_file_reader.h"

#include <algorithm>
#include <utility>

namespace sarnet {
namespace {

// The lowest rate of narrowband sound, and the highest of converters and their files. Rates a
// hundred times off would shrink a second of the file to nothing, or fill the memory.
constexpr int kMinFileRate = 4000;
constexpr int kMaxFileRate = 384000;

}  // namespace

AudioFileReader::AudioFileReader(std::string path, AudioFormat format, bool loop,
                                 Interrupted interrupted)
    : path_(std::move(path)), format_(format), loop_(loop), stream_(std::move(interrupted)) {}

bool AudioFileReader::open() {
  if (!format_.valid()) {
    error_ = failure_text("read", path_, "sound is given out at 8 to 48 kHz in 1 or 2 channels");
    return false;
  }
  if (!start_round()) return false;
  const std::size_t period = static_cast<std::size_t>(format_.period_frames()) *
                             static_cast<std::size_t>(format_.channels);
  while (!ended_ && ready_.size() < period) fetch();
  return error_.empty();
}

// Opens the file from its start.
bool AudioFileReader::start_round() {
  heard_ = 0;
  if (!stream_.open(path_, AVMEDIA_TYPE_AUDIO)) {
    fail(stream_.error());
    return false;
  }
  return true;
}

ReadStatus AudioFileReader::fail(const std::string& error) {
  error_ = error;
  ended_ = true;
  return ReadStatus::kError;
}

bool AudioFileReader::prepare_conversion(const AVFrame& frame) {
  if (converter_ && frame.sample_rate == source_rate_ && frame.format == source_format_ &&
      frame.ch_layout.nb_channels == source_channels_) {
    return true;
  }
  if (frame.sample_rate < kMinFileRate || frame.sample_rate > kMaxFileRate) {
    error_ = failure_text("read", path_,
                          "sample rate " + std::to_string(frame.sample_rate) + " Hz is beyond " +
                              std::to_string(kMinFileRate) + " to " + std::to_string(kMaxFileRate));
    return false;
  }
  AVChannelLayout source{};
  AVChannelLayout target{};
  if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
    av_channel_layout_default(&source, frame.ch_layout.nb_channels);
  } else {
    av_channel_layout_copy(&source, &frame.ch_layout);
  }
  av_channel_layout_default(&target, format_.channels);
  SwrContext* converter = nullptr;
  int status =
      swr_alloc_set_opts2(&converter, &target, AV_SAMPLE_FMT_S16, format_.rate, &source,
                          static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
  converter_.reset(converter);
  if (status >= 0 && source.nb_channels == 1 && format_.channels == 2) {
    const double both[] = {1.0, 1.0};
    status = swr_set_matrix(converter, both, 1);
  } else if (status >= 0 && source.nb_channels == 2 && format_.channels == 1) {
    const double mean[] = {0.5, 0.5};
    status = swr_set_matrix(converter, mean, 2);
  }
  av_channel_layout_uninit(&source);
  if (status >= 0) status = swr_init(converter);
  if (status < 0) {
    converter_.reset();
    error_ = failure_text("convert the sound of", path_, status);
    return false;
  }
  source_rate_ = frame.sample_rate;
  source_format_ = frame.format;
  source_channels_ = frame.ch_layout.nb_channels;
  return true;
}

// Converts one frame, or with null the converter's rest, and appends it to ready_.
bool AudioFileReader::convert(const AVFrame* frame) {
  const auto channels = static_cast<std::size_t>(format_.channels);
  const int frames = frame != nullptr ? frame->nb_samples : 0;
  const int room = swr_get_out_samples(converter_.get(), frames);
  if (room < 0) {
    error_ = failure_text("convert the sound of", path_, room);
    return false;
  }
  const std::size_t before = ready_.size();
  ready_.resize(before + static_cast<std::size_t>(room) * channels);
  auto* output = reinterpret_cast<std::uint8_t*>(ready_.data() + before);
  const auto** input =
      frame != nullptr ? const_cast<const std::uint8_t**>(frame->extended_data) : nullptr;
  const int made = swr_convert(converter_.get(), &output, room, input, frames);
  ready_.resize(before + static_cast<std::size_t>(std::max(made, 0)) * channels);
  if (made < 0) error_ = failure_text("convert the sound of", path_, made);
  return made >= 0;
}

// Appends some more of the file to ready_, or nothing at the end of a round.
ReadStatus AudioFileReader::fetch() {
  AVFrame* frame = nullptr;
  switch (stream_.next(frame)) {
    case ReadStatus::kOk:
      if (!prepare_conversion(*frame) || !convert(frame)) return fail(error_);
      heard_ += static_cast<double>(frame->nb_samples) / frame->sample_rate;
      return ReadStatus::kOk;
    case ReadStatus::kError:
      return fail(stream_.error());
    case ReadStatus::kEnd:
      break;
  }
  if (heard_ <= 0) return fail(failure_text("read", path_, "there is no sound in it"));
  if (!loop_) {
    ended_ = true;
    return convert(nullptr) ? ReadStatus::kOk : fail(error_);
  }
  if (heard_ < kShortestRound) {
    return fail(failure_text("read", path_, "it is too short to be repeated, less than 10 ms"));
  }
  return start_round() ? ReadStatus::kOk : ReadStatus::kError;
}

ReadStatus AudioFileReader::read(std::span<std::int16_t> samples, std::size_t& frames) {
  const auto channels = static_cast<std::size_t>(format_.channels);
  const std::size_t wanted = samples.size() / channels * channels;
  std::size_t filled = 0;
  ReadStatus status = ReadStatus::kOk;
  while (filled < wanted) {
    if (ready_position_ == ready_.size()) {
      if (ended_) {
        status = error_.empty() ? ReadStatus::kEnd : ReadStatus::kError;
        break;
      }
      ready_.clear();
      ready_position_ = 0;
      fetch();
      continue;
    }
    const std::size_t count = std::min(wanted - filled, ready_.size() - ready_position_);
    std::copy_n(ready_.data() + ready_position_, count, samples.data() + filled);
    ready_position_ += count;
    filled += count;
  }
  frames = filled / channels;
  return status;
}

}  // namespace sarnet
