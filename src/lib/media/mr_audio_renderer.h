#pragma once

#include <log4cxx/logger.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <thread>

#include "common/mutex.h"
#include "media/mr_audio_data.h"

enum class AudioRendererState { Uninitialized = 0, Initialized = 1, Running = 2 };

/// Receives one period of mixed audio on the renderer's thread, with no lock held. The data are
/// valid during the call only.
using MRAudioDataCallback = std::function<void(const MRAudioData&)>;

/// Delivers the session's mixed audio: a thread reads one period at a time from the library and
/// passes it to the callback.
///
/// The life-cycle functions may be called from any thread but the loop's own. `stop` waits for one
/// period at most: a thread that is still in the library or in the callback is joined by a
/// short-lived thread, which the next `start`, or the destructor, waits for without limit. A short
/// read ends the loop; `isRunning` stays true until `stop`.
class MRAudioRenderer {
 public:
  MRAudioRenderer(std::chrono::milliseconds period, MRAudioDataCallback&& callback);
  ~MRAudioRenderer();

  MRAudioRenderer(const MRAudioRenderer&) = delete;
  MRAudioRenderer& operator=(const MRAudioRenderer&) = delete;

  /// False when initialised already and for formats whose period does not fit.
  bool init(int sample_rate, int channels);
  bool start();
  bool stop();
  bool destroy();

  bool isInitialized() const;
  bool isRunning() const;

 private:
  bool stopLocked() REQUIRES(lifecycle_mutex_);
  bool destroyLocked() REQUIRES(lifecycle_mutex_);
  bool startThreadLocked() REQUIRES(lifecycle_mutex_);
  void launchJoinLocked() REQUIRES(lifecycle_mutex_);
  void runLoop(int sample_rate, int channels);
  void loopFn(int sample_rate, int channels);
  bool deliverPeriod(MRAudio::sample_t* buffer, std::size_t frames, int sample_rate, int channels);

  const std::chrono::milliseconds audio_period_;
  const MRAudioDataCallback on_audio_;
  const log4cxx::LoggerPtr logger_;
  std::atomic<AudioRendererState> state_{AudioRendererState::Uninitialized};
  common::Mutex lifecycle_mutex_;  ///< guards what follows; never taken by the loop or the join
  int sample_rate_ GUARDED_BY(lifecycle_mutex_) = 0;
  int num_channels_ GUARDED_BY(lifecycle_mutex_) = 0;
  std::thread thread_ GUARDED_BY(lifecycle_mutex_);
  /// Completes when the join thread has joined thread_; none before the first stop and once
  /// consumed.
  std::shared_future<void> thread_join_future_ GUARDED_BY(lifecycle_mutex_);
};
