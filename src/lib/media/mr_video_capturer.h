#pragma once

#include <log4cxx/logger.h>
#include <sarnet/sarnet.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <ostream>

#include "common/mutex.h"
#include "media/mr_video_frame.h"
#include "runtime/periodic_task_runner.h"

/// Size, rate and format of one stream of injected video.
struct MRVideoSettings {
  int width = 0;
  int height = 0;
  int fps = 0;
  MRVideoFrameFormat format = MRVideoFrameFormat::UNKNOWN;

  /// Whether size and rate are positive. Ignores the format.
  bool isValid() const;

  bool operator==(const MRVideoSettings&) const = default;
};

std::ostream& operator<<(std::ostream& out, const MRVideoSettings& settings);

/// Called on the capturer's thread with no lock held. Must return quickly: it delays the next
/// frame.
using MRVideoBufferDrainedCallback = std::function<void()>;

/// Buffers injected video: accepts frames at the program's pace and gives the library one per
/// period.
///
/// When the queue is empty the last frame is repeated for two seconds less a period, then black
/// frames follow, as they do before the first frame. The second repeat (the first up to 3 frames a
/// second) raises the drained callback, once each time the queue runs empty.
///
/// The library drives the object through its table, which holds its address. Frames are taken
/// between the table's `start` and `destroy`. All public functions may be called from any thread.
class MRVideoCapturer {
 public:
  static constexpr int kDefaultFps = 30;
  /// Capacity of the queue in frames.
  static constexpr std::size_t kInjectedVideoBufferItems = 150;
  /// The drained callback may follow the last frame by this time, but at most by these periods.
  static constexpr int kDrainedBufferHysteresisMs = 500;
  static constexpr int kDrainedBufferHysteresisPeriods = 2;

  explicit MRVideoCapturer(const MRVideoSettings& settings);
  /// Waits for the frame under way.
  ~MRVideoCapturer();

  MRVideoCapturer(const MRVideoCapturer&) = delete;
  MRVideoCapturer& operator=(const MRVideoCapturer&) = delete;

  /// Valid as long as the object.
  const srn_video_capturer_callbacks* getSrnCallbacks() const;

  bool isRunning() const;

  /// Queues the frame, or destroys it and returns false: not running, null frame, another size or
  /// format than the stream's, or no room.
  bool addVideo(std::unique_ptr<MRVideoFrame> frame);

  /// Drops the queue; the last frame stays. False when not running.
  bool clearVideoBuffers();

  /// The duration of the queued video, counting the frame just taken. Takes no lock.
  std::chrono::milliseconds getVideoBufferDuration() const;

  /// The queue itself; only for a caller with exclusive use of the capturer.
  const std::deque<std::unique_ptr<MRVideoFrame>>& getVideoFrameBuffers() const;

  void setOnVideoBufferDrainedCallback(MRVideoBufferDrainedCallback&& callback);
  MRVideoBufferDrainedCallback getOnVideoBufferDrainedCallback() const;

 protected:
  /// What the next period shows; empty only when the library cannot wrap the frame. On the
  /// capturer's thread.
  std::shared_ptr<srn_video_frame> getNextFrame();
  bool runInjectedVideoTask();
  /// Ends the task and drops the last frame; queued frames stay for the next start.
  bool stop();

  static srn_bool OnInit(const srn_video_capturer* capturer, void* user_data);
  static srn_bool OnDestroy(const srn_video_capturer* capturer, void* user_data);
  static srn_bool OnStart(const srn_video_capturer* capturer, void* user_data);
  static srn_bool OnGetCaptureSettings(const srn_video_capturer* capturer, void* user_data,
                                       srn_video_capturer_settings* settings);

 private:
  void updateBufferedFramesNumber() REQUIRES(frame_mutex_);
  std::shared_ptr<srn_video_frame> takeQueuedFrame() REQUIRES(frame_mutex_);
  void raiseDrained();
  void provideFrame();

  static const log4cxx::LoggerPtr& logger_;

  std::atomic<std::uint32_t> current_buffered_frames_{0};
  const int width_;
  const int height_;
  const int fps_;
  const MRVideoFrameFormat format_;
  const std::chrono::microseconds video_period_;
  std::atomic<const srn_video_capturer*> capturer_{nullptr};
  srn_video_capturer_callbacks callbacks_;
  common::Mutex frame_mutex_;  ///< guards frame_buffers_; taken before the pool's
  std::deque<std::unique_ptr<MRVideoFrame>> frame_buffers_ GUARDED_BY(frame_mutex_);
  const int max_repetition_last_frame_;
  int times_repeated_last_frame_ = 0;         ///< the task's own
  std::unique_ptr<MRVideoFrame> last_frame_;  ///< the task's own, while it runs
  const std::unique_ptr<MRVideoFrame> black_frame_;
  const int drained_buffer_hysteresis_periods_;
  mutable common::Mutex callback_mutex_;  ///< a leaf; guards the callback below
  MRVideoBufferDrainedCallback on_buffer_drained_cb_ GUARDED_BY(callback_mutex_);
  common::Mutex lifecycle_mutex_;   ///< start and stop, one at a time; never taken by the task
  PeriodicTaskRunner task_runner_;  ///< last, so that its thread ends before what it uses
};
