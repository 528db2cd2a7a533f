#include "audio/render_path.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace sarnet {

std::shared_ptr<DriftBuffer> RenderSource::buffer() const {
  const common::LockGuard lock(mutex_);
  return buffer_;
}

void RenderSource::write(const AudioFormat& format, std::span<const std::int16_t> samples,
                         const std::optional<AudioFormat>& reader) {
  auto buffer = this->buffer();
  if (!reader) {
    if (buffer) {
      const common::LockGuard lock(mutex_);
      buffer_.reset();
    }
    return;
  }
  if (!buffer || buffer->writer_format() != format || buffer->reader_format() != *reader) {
    buffer = std::make_shared<DriftBuffer>(format, *reader);
    const common::LockGuard lock(mutex_);
    buffer_ = buffer;
  }
  buffer->write(samples);
}

bool RenderSource::read(const AudioFormat& format, std::span<std::int16_t> samples) {
  const auto buffer = this->buffer();
  return buffer && buffer->reader_format() == format && buffer->read(samples);
}

double RenderSource::queued_ms() const {
  const auto buffer = this->buffer();
  return buffer ? buffer->counters().queued_ms : 0;
}

RenderPath::RenderPath(Counters& counters) : counters_(counters) {}

void RenderPath::start(const AudioFormat& format) {
  const common::LockGuard lock(mutex_);
  format_ = format;
}

void RenderPath::stop() {
  const common::LockGuard lock(mutex_);
  format_.reset();
}

std::optional<AudioFormat> RenderPath::format() const {
  const common::LockGuard lock(mutex_);
  return format_;
}

void RenderPath::add(std::shared_ptr<RenderSource> source) {
  const common::LockGuard lock(mutex_);
  sources_.push_back(std::move(source));
}

void RenderPath::remove(const RenderSource* source) {
  std::shared_ptr<RenderSource> gone;
  const common::LockGuard lock(mutex_);
  const auto found = std::find_if(sources_.begin(), sources_.end(),
                                  [&](const auto& each) { return each.get() == source; });
  if (found == sources_.end()) return;
  gone = std::move(*found);
  sources_.erase(found);
}

std::size_t RenderPath::read(std::int16_t* buffer, std::size_t frames) {
  const common::LockGuard mixing(mix_mutex_);
  std::size_t done = 0;
  bool silent = true;
  while (done < frames) {
    const common::LockGuard lock(mutex_);
    if (!format_) return done;
    const auto channels = static_cast<std::size_t>(format_->channels);
    const std::size_t step =
        std::min(frames - done, static_cast<std::size_t>(format_->period_frames())) * channels;
    mixer_.start(step);
    const std::span<std::int16_t> scratch(scratch_.data(), step);
    for (const auto& source : sources_) {
      if (source->read(*format_, scratch)) {
        mixer_.add(scratch);
        silent = false;
      }
    }
    mixer_.finish({buffer + done * channels, step});
    done += step / channels;
  }
  ++counters_.render_periods;
  if (silent) ++counters_.render_silent;
  return done;
}

std::int64_t RenderPath::delay_us() const {
  const common::LockGuard lock(mutex_);
  double longest = 0;
  for (const auto& source : sources_) longest = std::max(longest, source->queued_ms());
  return std::llround(longest * 1000);
}

}  // namespace sarnet
