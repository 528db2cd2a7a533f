#pragma once

#include <log4cxx/logger.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>

#include "common/mutex.h"
#include "media/mr_audio_data.h"
#include "runtime/periodic_task_runner.h"

enum class AudioCapturerState { Uninitialized = 0, Initialized = 1, Running = 2 };

/// Called on the capturer's thread with its mutex held: may only post.
using MRAudioCapturerBuffersDrainedCallback = std::function<void()>;

// Held by value and never deleted through a base, so the destructor is not virtual.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// Buffers injected audio: accepts blocks of any size and gives the library one period at a time.
///
/// While samples wait, each period goes out as it is. When they run out, the rest goes out padded
/// with silence; then three periods pass without any sample (the second raises the drained
/// callback, once for each time the buffer runs dry), and explicit silence follows. Before the
/// first full period, and after a clear, silence starts at once, without a drained callback.
///
/// `addAudio`, `clearAudioBuffers` and the getters may be called from any thread; the life-cycle
/// calls too, one at a time. `stop` and the destructor wait for the period under way.
class MRAudioCapturer {
 public:
  /// Capacity in samples of all channels: 300 s at 48 kHz stereo.
  static constexpr std::size_t kInjectedAudioBufferSize = MRAudio::kMaxBufferedSamples;
  /// Empty periods after which the drained callback is raised.
  static constexpr std::size_t kDrainedBufferHysteresis = 2;
  /// Empty periods in which nothing is written.
  static constexpr std::size_t kSilenceHysteresis = 3;

  explicit MRAudioCapturer(std::chrono::milliseconds period);
  ~MRAudioCapturer();

  MRAudioCapturer(const MRAudioCapturer&) = delete;
  MRAudioCapturer& operator=(const MRAudioCapturer&) = delete;

  /// False when initialised already and for formats whose period does not fit. Allocates all of the
  /// object's memory; throws std::bad_alloc.
  bool init(int sample_rate, int channels);
  bool start();
  bool stop();
  bool destroy();

  bool isInitialized() const;
  bool isRunning() const;

  /// Takes all of the data and returns true, or none and returns false: when not running, or when
  /// they do not fit. The data's counts are trusted; its rate is ignored.
  bool addAudio(const MRAudioData& data);

  /// Drops the queued audio and starts over, as after `start`. False before `init`.
  bool clearAudioBuffers();

  void setOnAudioBuffersDrainedCallback(MRAudioCapturerBuffersDrainedCallback&& callback);

  /// The duration of the queued audio. Takes no lock.
  std::chrono::milliseconds getAudioBufferDuration() const;

 protected:
  /// Allocates the three buffers for the current format and empties them. Called by `init`.
  virtual void resetInjectedAudioState() REQUIRES(injected_audio_mutex_);

 private:
  struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
  };

  bool runInjectedAudioTask();
  void updateBufferedFramesNumber() REQUIRES(injected_audio_mutex_);
  bool stopLocked() REQUIRES(lifecycle_mutex_);
  bool destroyLocked() REQUIRES(lifecycle_mutex_);

  // The periodic task and its cases.
  void captureTask();
  srn_status writePeriod() REQUIRES(injected_audio_mutex_);
  srn_status writeRemainderPadded() REQUIRES(injected_audio_mutex_);
  srn_status writeSilence() REQUIRES(injected_audio_mutex_);
  bool isToleratedDrySpell() REQUIRES(injected_audio_mutex_);

  const std::chrono::milliseconds audio_period_;
  std::atomic<int> sample_rate_{0};
  std::atomic<int> num_channels_{0};
  std::atomic<AudioCapturerState> state_{AudioCapturerState::Uninitialized};
  common::Mutex lifecycle_mutex_;       ///< one life-cycle call at a time; never taken by the task
  common::Mutex injected_audio_mutex_;  ///< guards what is said to be its own
  std::size_t period_buffer_bytes_ GUARDED_BY(injected_audio_mutex_) = 0;
  /// samples of all channels in one period
  std::size_t period_buffer_length_ GUARDED_BY(injected_audio_mutex_) = 0;
  std::int32_t injected_read_index_ GUARDED_BY(injected_audio_mutex_) = 0;
  std::int32_t injected_write_index_ GUARDED_BY(injected_audio_mutex_) = 0;
  /// samples that may be non-zero
  std::size_t injected_high_water_ GUARDED_BY(injected_audio_mutex_) = 0;
  /// a full period went out since the last reset
  bool is_receiving_data_ GUARDED_BY(injected_audio_mutex_) = false;
  std::size_t frames_per_period_ GUARDED_BY(injected_audio_mutex_) = 0;
  std::atomic<std::uint32_t> current_buffered_frames_{0};
  const log4cxx::LoggerPtr logger_;
  std::unique_ptr<MRAudio::sample_t[], FreeDeleter> injected_audio_buffer_
      GUARDED_BY(injected_audio_mutex_);
  std::unique_ptr<MRAudio::sample_t[]> silence_buffer_ GUARDED_BY(injected_audio_mutex_);
  std::unique_ptr<MRAudio::sample_t[]> mixed_buffer_ GUARDED_BY(injected_audio_mutex_);
  MRAudioCapturerBuffersDrainedCallback on_buffers_drained_cb_ GUARDED_BY(injected_audio_mutex_);
  int periods_without_data_ GUARDED_BY(injected_audio_mutex_) = 0;
  PeriodicTaskRunner task_runner_;  ///< last, so that its thread ends before what it uses
};

#pragma GCC diagnostic pop
