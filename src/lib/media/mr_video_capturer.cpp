#include "media/mr_video_capturer.h"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include "support/callback_guard.h"
#include "support/logger.h"

namespace {

/// A stream may request any rate, but a task without a pause would take a whole core.
constexpr Nanos kShortestPeriod = std::chrono::milliseconds(1);

std::chrono::microseconds periodOf(int fps) {
  return std::chrono::microseconds(fps == 0 ? 0 : 1'000'000 / fps);
}

int maxRepetitions(int fps) {
  return static_cast<int>(
      std::min<std::int64_t>(std::int64_t{fps} * 2, std::numeric_limits<int>::max()));
}

int hysteresisPeriods(int fps) {
  const std::int64_t periods =
      std::int64_t{fps} * MRVideoCapturer::kDrainedBufferHysteresisMs / 1000;
  return static_cast<int>(
      std::clamp<std::int64_t>(periods, 1, MRVideoCapturer::kDrainedBufferHysteresisPeriods));
}

}  // namespace

const log4cxx::LoggerPtr& MRVideoCapturer::logger_ = lastingLogger("MRVideoCapturer");

bool MRVideoSettings::isValid() const { return width > 0 && height > 0 && fps > 0; }

std::ostream& operator<<(std::ostream& out, const MRVideoSettings& settings) {
  return out << "MRVideoSettings: {width: " << settings.width << ", height: " << settings.height
             << ", fps: " << settings.fps
             << ", format: " << MRVideoFrameFormatUtils::to_string(settings.format) << "}";
}

MRVideoCapturer::MRVideoCapturer(const MRVideoSettings& settings)
    : width_(settings.width),
      height_(settings.height),
      fps_(settings.fps),
      format_(settings.format),
      video_period_(periodOf(settings.fps)),
      callbacks_{.init = OnInit,
                 .destroy = OnDestroy,
                 .start = OnStart,
                 .stop = nullptr,
                 .get_capture_settings = OnGetCaptureSettings,
                 .user_data = this,
                 .reserved = nullptr},
      max_repetition_last_frame_(maxRepetitions(settings.fps)),
      black_frame_(MRVideoFrame::create(settings.width, settings.height, settings.format)),
      drained_buffer_hysteresis_periods_(hysteresisPeriods(settings.fps)),
      task_runner_("VideoCapturer") {
  // Empty for a format that no frame can have; the library then refuses each period.
  if (black_frame_) black_frame_->fillBlackColor();
  LOG4CXX_DEBUG(logger_, "MRVideoCapturer: " << settings);
}

MRVideoCapturer::~MRVideoCapturer() {
  if (isRunning()) stop();
}

const srn_video_capturer_callbacks* MRVideoCapturer::getSrnCallbacks() const { return &callbacks_; }

bool MRVideoCapturer::isRunning() const { return task_runner_.isRunning(); }

bool MRVideoCapturer::addVideo(std::unique_ptr<MRVideoFrame> frame) {
  if (!isRunning()) {
    LOG4CXX_WARN(logger_, "MRVideoCapturer::addVideo: Not running");
    return false;
  }
  if (!frame) {
    LOG4CXX_WARN(logger_, "MRVideoCapturer::addVideo: Frame is null");
    return false;
  }
  const MRVideoFrameData& data = frame->getFrameData();
  if (data.width != width_ || data.height != height_) {
    LOG4CXX_WARN(logger_, "MRVideoCapturer::addVideo: Frame size mismatch. Expected: "
                              << width_ << "x" << height_ << " Got: " << data.width << "x"
                              << data.height);
    return false;
  }
  if (data.format != format_) {
    LOG4CXX_WARN(logger_, "MRVideoCapturer::addVideo: Frame format mismatch. Expected: "
                              << format_ << " Got: " << data.format);
    return false;
  }
  const common::LockGuard lock(frame_mutex_);
  if (frame_buffers_.size() >= kInjectedVideoBufferItems) {
    LOG4CXX_ERROR(logger_, "MRVideoCapturer::addVideo: Video buffer is full.");
    return false;
  }
  frame_buffers_.push_back(std::move(frame));
  updateBufferedFramesNumber();
  return true;
}

bool MRVideoCapturer::clearVideoBuffers() {
  if (!isRunning()) {
    LOG4CXX_WARN(logger_, "MRVideoCapturer::clearVideoBuffers: video capturer is not running");
    return false;
  }
  LOG4CXX_INFO(logger_, "MRVideoCapturer::clearVideoBuffers: clearing the video buffers.");
  const common::LockGuard lock(frame_mutex_);
  frame_buffers_.clear();
  current_buffered_frames_.store(0);
  return true;
}

std::chrono::milliseconds MRVideoCapturer::getVideoBufferDuration() const {
  const std::int64_t frames = current_buffered_frames_.load();
  return std::chrono::milliseconds(fps_ == 0 ? 0 : frames * 1000 / fps_);
}

const std::deque<std::unique_ptr<MRVideoFrame>>& MRVideoCapturer::getVideoFrameBuffers() const {
  return frame_buffers_;
}

void MRVideoCapturer::setOnVideoBufferDrainedCallback(MRVideoBufferDrainedCallback&& callback) {
  // The old callable is left in `callback`, to be destroyed by the caller without the lock.
  const common::LockGuard lock(callback_mutex_);
  on_buffer_drained_cb_.swap(callback);
}

MRVideoBufferDrainedCallback MRVideoCapturer::getOnVideoBufferDrainedCallback() const {
  const common::LockGuard lock(callback_mutex_);
  return on_buffer_drained_cb_;
}

void MRVideoCapturer::updateBufferedFramesNumber() {
  current_buffered_frames_.store(static_cast<std::uint32_t>(frame_buffers_.size()));
}

std::shared_ptr<srn_video_frame> MRVideoCapturer::takeQueuedFrame() {
  LOG4CXX_TRACE(logger_, "MRVideoCapturer::getNextFrame: Frame taken from buffer");
  last_frame_ = std::move(frame_buffers_.front());
  times_repeated_last_frame_ = 0;
  // Counted before it is removed: the frame about to be shown has not been played yet.
  updateBufferedFramesNumber();
  frame_buffers_.pop_front();
  return last_frame_->toSrnVideoFrame();
}

std::shared_ptr<srn_video_frame> MRVideoCapturer::getNextFrame() {
  {
    const common::LockGuard lock(frame_mutex_);
    if (!frame_buffers_.empty()) return takeQueuedFrame();
    if (last_frame_) updateBufferedFramesNumber();
  }
  if (last_frame_) {
    ++times_repeated_last_frame_;
    if (times_repeated_last_frame_ == drained_buffer_hysteresis_periods_) raiseDrained();
    if (times_repeated_last_frame_ < max_repetition_last_frame_) {
      LOG4CXX_TRACE(logger_, "MRVideoCapturer::getNextFrame: Repeating last frame");
      return last_frame_->toSrnVideoFrame();
    }
    LOG4CXX_TRACE(logger_, "MRVideoCapturer::getNextFrame: Max repetition of last frame reached.");
    last_frame_.reset();
    times_repeated_last_frame_ = 0;
  }
  LOG4CXX_TRACE(logger_, "MRVideoCapturer::getNextFrame: No frame found. Using black frame.");
  return black_frame_ ? black_frame_->toSrnVideoFrame() : nullptr;
}

void MRVideoCapturer::raiseDrained() {
  const MRVideoBufferDrainedCallback on_drained = getOnVideoBufferDrainedCallback();
  if (!on_drained) return;
  LOG4CXX_DEBUG(logger_,
                "MRVideoCapturer::getNextFrame: Video buffer is drained (max repetition of last "
                "frame reached).");
  on_drained();
}

bool MRVideoCapturer::runInjectedVideoTask() {
  const Nanos period = std::max<Nanos>(video_period_, kShortestPeriod);
  return task_runner_.run(
      [this] { provideFrame(); }, period,
      [](const std::string&) {
        LOG4CXX_ERROR(logger_,
                      "MRVideoCapturer::runInjectedVideoTask: An error occurred running the "
                      "MRVideoCapturer task.");
      });
}

void MRVideoCapturer::provideFrame() {
  LOG4CXX_TRACE(logger_, "MRVideoCapturer::runInjectedVideoTask: Providing frame to MR...");
  const std::shared_ptr<srn_video_frame> frame = getNextFrame();
  const srn_status status = srn_video_capturer_provide_frame(capturer_.load(), 0, frame.get());
  if (status != SRN_SUCCESS) {
    LOG4CXX_ERROR(
        logger_,
        "MRVideoCapturer::runInjectedVideoTask: Failed to provide frame to MR. status:" << status);
  }
}

bool MRVideoCapturer::stop() {
  const common::LockGuard lifecycle(lifecycle_mutex_);
  LOG4CXX_DEBUG(logger_, "MRVideoCapturer::stop: Stopping...");
  if (!isRunning()) {
    LOG4CXX_WARN(logger_, "MRVideoCapturer::stop: Not running");
    return false;
  }
  task_runner_.stop();
  last_frame_.reset();
  current_buffered_frames_.store(0);
  LOG4CXX_DEBUG(logger_, "MRVideoCapturer::stop: Stopped");
  return true;
}

srn_bool MRVideoCapturer::OnInit(const srn_video_capturer* capturer, void* user_data) {
  if (user_data == nullptr) {
    LOG4CXX_ERROR(logger_, "MRVideoCapturer::OnGetCaptureSettings: user_data is null");
    return SRN_FALSE;
  }
  static_cast<MRVideoCapturer*>(user_data)->capturer_.store(capturer);
  return SRN_TRUE;
}

srn_bool MRVideoCapturer::OnDestroy(const srn_video_capturer*, void* user_data) {
  if (user_data == nullptr) {
    LOG4CXX_ERROR(logger_, "MRVideoCapturer::OnGetCaptureSettings: user_data is null");
    return SRN_FALSE;
  }
  const bool stopped = guardCallback(logger_, "MRVideoCapturer::OnDestroy", [user_data] {
    static_cast<MRVideoCapturer*>(user_data)->stop();
  });
  return stopped ? SRN_TRUE : SRN_FALSE;
}

srn_bool MRVideoCapturer::OnStart(const srn_video_capturer*, void* user_data) {
  if (user_data == nullptr) {
    LOG4CXX_ERROR(logger_, "MRVideoCapturer::OnStart: user_data is null");
    return SRN_FALSE;
  }
  const bool started = guardCallback(logger_, "MRVideoCapturer::OnStart", [user_data] {
    auto* self = static_cast<MRVideoCapturer*>(user_data);
    const common::LockGuard lifecycle(self->lifecycle_mutex_);
    self->runInjectedVideoTask();
  });
  return started ? SRN_TRUE : SRN_FALSE;
}

srn_bool MRVideoCapturer::OnGetCaptureSettings(const srn_video_capturer*, void* user_data,
                                               srn_video_capturer_settings* settings) {
  if (user_data == nullptr) {
    LOG4CXX_ERROR(logger_, "MRVideoCapturer::OnGetCaptureSettings: user_data is null");
    return SRN_FALSE;
  }
  if (settings == nullptr) return SRN_FALSE;
  const auto* self = static_cast<const MRVideoCapturer*>(user_data);
  *settings = {
      .format = MRVideoFrameFormatUtils::to_srn_video_frame_format(self->format_),
      .width = self->width_,
      .height = self->height_,
      .fps = self->fps_,
      .expected_delay = 0,
      .mirror_on_local_render = SRN_FALSE,
  };
  return SRN_TRUE;
}
