#include "media/mr_audio_data.h"

#include <cstring>

namespace MRAudio {

std::optional<PeriodSize> periodSize(int sample_rate, int channels,
                                     std::chrono::milliseconds period) {
  if (sample_rate < 0 || channels < 0) return std::nullopt;
  const std::int64_t frames = std::int64_t{sample_rate} * period.count() / 1000;
  std::int64_t samples = 0;
  if (__builtin_mul_overflow(frames, std::int64_t{channels}, &samples) || frames < 0 ||
      samples > static_cast<std::int64_t>(kMaxBufferedSamples)) {
    return std::nullopt;
  }
  return PeriodSize{static_cast<std::size_t>(frames), static_cast<std::size_t>(samples)};
}

}  // namespace MRAudio

MRAudioData::MRAudioData(const void* sample_buffer, int sample_rate, std::size_t number_of_channels,
                         std::size_t number_of_frames)
    : sample_buffer_(sample_buffer),
      sample_rate_(sample_rate),
      number_of_channels_(number_of_channels),
      number_of_frames_(number_of_frames) {}

MRAudioData::MRAudioData(const srn_audio_data* audio_data)
    : sample_buffer_(audio_data != nullptr ? audio_data->sample_buffer : nullptr),
      sample_rate_(audio_data != nullptr ? audio_data->sample_rate : 0),
      number_of_channels_(audio_data != nullptr ? audio_data->number_of_channels : 0),
      number_of_frames_(audio_data != nullptr ? audio_data->number_of_samples : 0) {}

std::optional<std::size_t> MRAudioData::sampleCount() const {
  std::size_t count = 0;
  if (__builtin_mul_overflow(number_of_frames_, number_of_channels_, &count)) return std::nullopt;
  return count;
}

std::size_t MRAudioData::bufferSize() const {
  const auto samples = sampleCount();
  std::size_t bytes = 0;
  if (!samples || __builtin_mul_overflow(*samples, sizeof(MRAudio::sample_t), &bytes)) return 0;
  return bytes;
}

bool MRAudioData::isBufferEmpty() const {
  const std::size_t size = bufferSize();
  if (sample_buffer_ == nullptr || size == 0) return true;
  const auto* bytes = static_cast<const unsigned char*>(sample_buffer_);
  // Zero if the first byte is and each equals the next: memcmp is many times faster than a loop.
  return bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0;
}
