#include "media/mr_audio_capturer.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <utility>

using MRAudio::sample_t;

MRAudioCapturer::MRAudioCapturer(std::chrono::milliseconds period)
    : audio_period_(period),
      logger_(log4cxx::Logger::getLogger("MRAudioCapturer")),
      task_runner_("AudioCapturer") {}

MRAudioCapturer::~MRAudioCapturer() {
  stop();
  destroy();
}

bool MRAudioCapturer::init(int sample_rate, int channels) {
  const common::LockGuard lifecycle(lifecycle_mutex_);
  if (state_.load() != AudioCapturerState::Uninitialized) {
    LOG4CXX_WARN(logger_, "MRAudioCapturer::init: Already initialized");
    return false;
  }
  const auto period = MRAudio::periodSize(sample_rate, channels, audio_period_);
  if (!period) {
    LOG4CXX_WARN(logger_, "MRAudioCapturer::init: Unusable format. sample_rate: "
                              << sample_rate << " channels: " << channels);
    return false;
  }
  // An addAudio that checked the state in the previous session may still use the buffer.
  const common::LockGuard lock(injected_audio_mutex_);
  sample_rate_.store(sample_rate);
  num_channels_.store(channels);
  frames_per_period_ = period->frames;
  period_buffer_length_ = period->samples;
  period_buffer_bytes_ = period->samples * sizeof(sample_t);
  resetInjectedAudioState();
  state_.store(AudioCapturerState::Initialized);
  return true;
}

void MRAudioCapturer::resetInjectedAudioState() {
  silence_buffer_ = std::make_unique<sample_t[]>(period_buffer_length_);
  mixed_buffer_ = std::make_unique<sample_t[]>(period_buffer_length_);
  // The old one is freed first; calloc's pages are zero without being touched.
  injected_audio_buffer_.reset();
  injected_audio_buffer_.reset(
      static_cast<sample_t*>(std::calloc(kInjectedAudioBufferSize, sizeof(sample_t))));
  if (!injected_audio_buffer_) throw std::bad_alloc();
  injected_high_water_ = 0;
  injected_read_index_ = 0;
  injected_write_index_ = 0;
  is_receiving_data_ = false;
  periods_without_data_ = 0;
  current_buffered_frames_.store(0);
}

bool MRAudioCapturer::start() {
  const common::LockGuard lifecycle(lifecycle_mutex_);
  LOG4CXX_DEBUG(logger_, "MRAudioCapturer::start: Starting...");
  switch (state_.load()) {
    case AudioCapturerState::Uninitialized:
      LOG4CXX_WARN(logger_, "MRAudioCapturer::start: Not initialized");
      return false;
    case AudioCapturerState::Running:
      LOG4CXX_WARN(logger_, "MRAudioCapturer::start: ALREADY started !!!");
      return false;
    case AudioCapturerState::Initialized:
      break;
  }
  state_.store(AudioCapturerState::Running);
  runInjectedAudioTask();
  LOG4CXX_DEBUG(logger_, "MRAudioCapturer::start: Started");
  return true;
}

bool MRAudioCapturer::stop() {
  const common::LockGuard lifecycle(lifecycle_mutex_);
  return stopLocked();
}

bool MRAudioCapturer::stopLocked() {
  LOG4CXX_DEBUG(logger_, "MRAudioCapturer::stop: Stopping...");
  switch (state_.load()) {
    case AudioCapturerState::Uninitialized:
      LOG4CXX_WARN(logger_, "MRAudioCapturer::stop: Not initialized");
      return false;
    case AudioCapturerState::Initialized:
      LOG4CXX_WARN(logger_, "MRAudioCapturer::stop: Not running");
      return false;
    case AudioCapturerState::Running:
      break;
  }
  // First, so that addAudio refuses while the task ends.
  state_.store(AudioCapturerState::Initialized);
  task_runner_.stop();
  clearAudioBuffers();
  LOG4CXX_DEBUG(logger_, "MRAudioCapturer::stop: Stopped");
  return true;
}

bool MRAudioCapturer::destroy() {
  const common::LockGuard lifecycle(lifecycle_mutex_);
  return destroyLocked();
}

bool MRAudioCapturer::destroyLocked() {
  if (state_.load() == AudioCapturerState::Uninitialized) {
    LOG4CXX_WARN(logger_, "MRAudioCapturer::destroy: Not initialized");
    return false;
  }
  if (state_.load() == AudioCapturerState::Running) {
    LOG4CXX_WARN(logger_, "MRAudioCapturer::destroy: destroy called before stop");
  }
  clearAudioBuffers();
  state_.store(AudioCapturerState::Uninitialized);
  return true;
}

bool MRAudioCapturer::isInitialized() const {
  return state_.load() != AudioCapturerState::Uninitialized;
}

bool MRAudioCapturer::isRunning() const { return state_.load() == AudioCapturerState::Running; }

bool MRAudioCapturer::addAudio(const MRAudioData& data) {
  if (!isRunning()) return false;
  const std::optional<std::size_t> count = data.sampleCount();
  const common::LockGuard lock(injected_audio_mutex_);
  if (!isRunning()) return false;

  const auto waiting = static_cast<std::size_t>(injected_write_index_ - injected_read_index_);
  const std::size_t n = count.value_or(std::numeric_limits<std::size_t>::max());
  if (n > kInjectedAudioBufferSize - waiting) {
    LOG4CXX_WARN(logger_,
                 "MRAudioCapturer::addAudio: Not enough space in buffer for new data of length: "
                     << n << " injected_write_index_: " << injected_write_index_
                     << " injected buffer size: " << kInjectedAudioBufferSize
                     << ", read index: " << injected_read_index_);
    return false;
  }
  if (n > 0 && data.sample_buffer_ == nullptr) return false;

  sample_t* const buffer = injected_audio_buffer_.get();
  if (static_cast<std::size_t>(injected_write_index_) >= kInjectedAudioBufferSize - n) {
    LOG4CXX_WARN(logger_, "MRAudioCapturer::addAudio: Memmove to accomodate new data.. " << n);
    std::memmove(buffer, buffer + injected_read_index_, waiting * sizeof(sample_t));
    injected_write_index_ -= injected_read_index_;
    injected_read_index_ = 0;
  }
  LOG4CXX_TRACE(logger_, "MRAudioCapturer::addAudio: copy data to buffer.. "
                             << n << " at " << injected_write_index_);
  if (n > 0) std::memcpy(buffer + injected_write_index_, data.sample_buffer_, n * sizeof(sample_t));
  injected_write_index_ += static_cast<std::int32_t>(n);
  injected_high_water_ =
      std::max(injected_high_water_, static_cast<std::size_t>(injected_write_index_));
  updateBufferedFramesNumber();
  return true;
}

bool MRAudioCapturer::clearAudioBuffers() {
  if (!isInitialized()) {
    LOG4CXX_WARN(logger_, "MRAudioCapturer::clearAudioBuffers: audio capturer is not initialized");
    return false;
  }
  LOG4CXX_INFO(logger_, "MRAudioCapturer::clearAudioBuffers: clearing the audio buffers.");
  const common::LockGuard lock(injected_audio_mutex_);
  // The rest of the buffer is zero already, and the capture task is waiting.
  std::fill_n(injected_audio_buffer_.get(), injected_high_water_, sample_t{0});
  std::fill_n(silence_buffer_.get(), period_buffer_length_, sample_t{0});
  std::fill_n(mixed_buffer_.get(), period_buffer_length_, sample_t{0});
  injected_high_water_ = 0;
  injected_read_index_ = 0;
  injected_write_index_ = 0;
  is_receiving_data_ = false;
  periods_without_data_ = 0;
  current_buffered_frames_.store(0);
  return true;
}

void MRAudioCapturer::setOnAudioBuffersDrainedCallback(
    MRAudioCapturerBuffersDrainedCallback&& callback) {
  // The old callable is left in `callback`, to be destroyed by the caller without the lock.
  const common::LockGuard lock(injected_audio_mutex_);
  on_buffers_drained_cb_.swap(callback);
}

std::chrono::milliseconds MRAudioCapturer::getAudioBufferDuration() const {
  const int sample_rate = sample_rate_.load();
  if (sample_rate <= 0) {
    LOG4CXX_WARN(logger_, "MRAudioCapturer::getAudioBufferDuration: Not initialized");
    return std::chrono::milliseconds(0);
  }
  const std::int64_t frames = current_buffered_frames_.load();
  return std::chrono::milliseconds(frames * 1000 / sample_rate);
}

void MRAudioCapturer::updateBufferedFramesNumber() {
  if (injected_write_index_ < injected_read_index_ || !isInitialized()) return;
  const int channels = num_channels_.load();
  const double samples = injected_write_index_ - injected_read_index_;
  current_buffered_frames_.store(channels > 0 ? static_cast<std::uint32_t>(samples / channels) : 0);
}

bool MRAudioCapturer::runInjectedAudioTask() {
  return task_runner_.run(
      [this] { captureTask(); }, audio_period_,
      [this](const std::string& message) {
        LOG4CXX_ERROR(logger_, "An error occurred running the AudioCapturer task: " << message);
      });
}

void MRAudioCapturer::captureTask() {
  if (!isInitialized()) return;
  const common::LockGuard lock(injected_audio_mutex_);
  LOG4CXX_TRACE(logger_, "Begin write capture data...");
  srn_status status = SRN_SUCCESS;
  const std::int32_t waiting = injected_write_index_ - injected_read_index_;
  if (period_buffer_length_ <= static_cast<std::size_t>(waiting)) {
    status = writePeriod();
  } else if (waiting > 0) {
    // A stream only begins with a full period.
    if (is_receiving_data_) status = writeRemainderPadded();
  } else {
    if (isToleratedDrySpell()) return;
    status = writeSilence();
  }
  if (injected_write_index_ < injected_read_index_) {
    LOG4CXX_ERROR(logger_, "Read index passed write index, resetting to 0.");
    injected_read_index_ = 0;
    injected_write_index_ = 0;
  }
  updateBufferedFramesNumber();
  if (status != SRN_SUCCESS) {
    LOG4CXX_WARN(logger_, "MRAudioCapturer task failed. Status:" << status << " OUT");
  }
}

srn_status MRAudioCapturer::writePeriod() {
  LOG4CXX_TRACE(logger_, "Normal case, enough data available...");
  const srn_status status = srn_audio_device_write_capture_data(
      injected_audio_buffer_.get() + injected_read_index_, frames_per_period_);
  is_receiving_data_ = true;
  periods_without_data_ = 0;
  injected_read_index_ += static_cast<std::int32_t>(period_buffer_length_);
  return status;
}

srn_status MRAudioCapturer::writeRemainderPadded() {
  LOG4CXX_TRACE(logger_, "Not enough data available, flush remaining data and pad with silence...");
  std::memset(mixed_buffer_.get(), 0, period_buffer_bytes_);
  std::copy(injected_audio_buffer_.get() + injected_read_index_,
            injected_audio_buffer_.get() + injected_write_index_, mixed_buffer_.get());
  const srn_status status =
      srn_audio_device_write_capture_data(mixed_buffer_.get(), frames_per_period_);
  injected_read_index_ = 0;
  injected_write_index_ = 0;
  periods_without_data_ = 0;
  return status;
}

bool MRAudioCapturer::isToleratedDrySpell() {
  if (periods_without_data_ < std::numeric_limits<int>::max()) ++periods_without_data_;
  if (!is_receiving_data_) return false;
  const auto periods = static_cast<std::size_t>(periods_without_data_);
  if (periods == kDrainedBufferHysteresis && on_buffers_drained_cb_) {
    LOG4CXX_DEBUG(logger_, "Audio buffers are drained");
    on_buffers_drained_cb_();
  }
  if (periods > kSilenceHysteresis) return false;
  LOG4CXX_TRACE(logger_, "No data available (cycles without data=" << periods_without_data_
                                                                   << "), silence tolerated...");
  return true;
}

srn_status MRAudioCapturer::writeSilence() {
  LOG4CXX_TRACE(logger_, "No data available (cycles without data="
                             << periods_without_data_ << "), writing explicit silence...");
  const srn_status status =
      srn_audio_device_write_capture_data(silence_buffer_.get(), frames_per_period_);
  injected_read_index_ = 0;
  injected_write_index_ = 0;
  return status;
}
