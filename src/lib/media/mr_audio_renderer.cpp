#include "media/mr_audio_renderer.h"

#include <sarnet/sarnet.h>

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "runtime/clock.h"

MRAudioRenderer::MRAudioRenderer(std::chrono::milliseconds period, MRAudioDataCallback&& callback)
    : audio_period_(period),
      on_audio_(std::move(callback)),
      logger_(log4cxx::Logger::getLogger("MRAudioRenderer")) {
  if (!on_audio_) {
    LOG4CXX_WARN(logger_,
                 "MRAudioRenderer::MRAudioRenderer: All audio data will be dropped because no "
                 "audio callback is set.");
  }
}

MRAudioRenderer::~MRAudioRenderer() {
  stop();
  destroy();
  // The future's destructor would not run a deferred join; this does.
  if (thread_join_future_.valid()) thread_join_future_.wait();
}

bool MRAudioRenderer::init(int sample_rate, int channels) {
  const common::LockGuard lifecycle(lifecycle_mutex_);
  if (state_.load() != AudioRendererState::Uninitialized) {
    LOG4CXX_WARN(logger_, "MRAudioRenderer::init: Already initialized");
    return false;
  }
  if (!MRAudio::periodSize(sample_rate, channels, audio_period_)) {
    LOG4CXX_WARN(logger_, "MRAudioRenderer::init: Unusable format. sample_rate: "
                              << sample_rate << " channels: " << channels);
    return false;
  }
  sample_rate_ = sample_rate;
  num_channels_ = channels;
  state_.store(AudioRendererState::Initialized);
  return true;
}

bool MRAudioRenderer::start() {
  LOG4CXX_DEBUG(logger_, "MRAudioRenderer::start: Starting...");
  bool waited = false;
  for (;;) {
    std::shared_future<void> previous;
    {
      const common::LockGuard lifecycle(lifecycle_mutex_);
      if (state_.load() == AudioRendererState::Uninitialized) {
        LOG4CXX_WARN(logger_, "MRAudioRenderer::start: Not initialized");
        return false;
      }
      if (state_.load() == AudioRendererState::Running) {
        LOG4CXX_WARN(logger_, "MRAudioRenderer::start: ALREADY started !!!");
        return false;
      }
      previous = thread_join_future_;
      const bool joined = !previous.valid() ||
                          previous.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
      if (joined) {
        thread_join_future_ = {};
        waited = waited || previous.valid();
        if (previous.valid()) previous.get();
        LOG4CXX_DEBUG(
            logger_,
            (waited ? "MRAudioRenderer::start: Wait for previous thread to finish"
                    : "MRAudioRenderer::start: Previous thread is finished or it was never "
                      "started"));
        return startThreadLocked();
      }
    }
    // Without the mutex: the old thread may be in a program's callable, which may wait for a thread
    // inside `stop`.
    previous.wait();
    waited = true;
  }
}

bool MRAudioRenderer::startThreadLocked() {
  // Before the thread exists: it ends as soon as it sees another state.
  state_.store(AudioRendererState::Running);
  try {
    // The thread gets a copy of the format: after a stop that timed out, `init` may set another one
    // while the old thread still runs.
    thread_ = std::thread(&MRAudioRenderer::runLoop, this, sample_rate_, num_channels_);
  } catch (const std::exception& e) {
    state_.store(AudioRendererState::Initialized);
    LOG4CXX_ERROR(logger_, "MRAudioRenderer::start: Couldn't start the thread: " << e.what());
    return false;
  }
  LOG4CXX_DEBUG(logger_, "MRAudioRenderer::start: Started");
  return true;
}

bool MRAudioRenderer::stop() {
  const common::LockGuard lifecycle(lifecycle_mutex_);
  return stopLocked();
}

bool MRAudioRenderer::stopLocked() {
  if (state_.load() == AudioRendererState::Uninitialized) {
    LOG4CXX_WARN(logger_, "MRAudioRenderer::stop: Not initialized");
    return false;
  }
  if (state_.load() != AudioRendererState::Running) {
    LOG4CXX_WARN(logger_, "MRAudioRenderer::stop: Not running");
    return false;
  }
  state_.store(AudioRendererState::Initialized);
  LOG4CXX_DEBUG(logger_,
                "MRAudioRenderer::stop: it's not running, loopFn will exit after current loop");
  LOG4CXX_DEBUG(logger_, "MRAudioRenderer::stop: Launch join thread async");
  launchJoinLocked();
  if (audio_period_.count() > 0) thread_join_future_.wait_for(audio_period_);
  return true;
}

void MRAudioRenderer::launchJoinLocked() {
  // Until it is done only the join touches the thread: start and destroy wait for the future.
  const auto join = [this]() NO_THREAD_SAFETY_ANALYSIS {
    LOG4CXX_DEBUG(logger_,
                  "MRAudioRenderer::stop: Joining thread to stop: the renderer is not running");
    if (thread_.joinable()) thread_.join();
    LOG4CXX_DEBUG(logger_, "MRAudioRenderer::stop: Stopped");
  };
  try {
    thread_join_future_ = std::async(std::launch::async, join).share();
  } catch (const std::exception&) {
    // No thread can be made: the one that waits for the join does it.
    thread_join_future_ = std::async(std::launch::deferred, join).share();
  }
}

bool MRAudioRenderer::destroy() {
  const common::LockGuard lifecycle(lifecycle_mutex_);
  return destroyLocked();
}

bool MRAudioRenderer::destroyLocked() {
  if (state_.load() == AudioRendererState::Uninitialized) {
    LOG4CXX_WARN(logger_, "MRAudioRenderer::destroy: Not initialized");
    return false;
  }
  if (state_.load() == AudioRendererState::Running) {
    LOG4CXX_WARN(logger_, "MRAudioRenderer::destroy: destroy called before stop");
    stopLocked();
  }
  state_.store(AudioRendererState::Uninitialized);
  return true;
}

bool MRAudioRenderer::isInitialized() const {
  return state_.load() > AudioRendererState::Uninitialized;
}

bool MRAudioRenderer::isRunning() const { return state_.load() == AudioRendererState::Running; }

void MRAudioRenderer::runLoop(int sample_rate, int channels) {
  // Nothing but std::exception is caught: the interpreter may end this thread by unwinding it.
  try {
    loopFn(sample_rate, channels);
  } catch (const std::exception& e) {
    LOG4CXX_ERROR(logger_,
                  "MRAudioRenderer::loopFn: Exception occurred running loop: " << e.what());
  }
}

void MRAudioRenderer::loopFn(int sample_rate, int channels) {
  LOG4CXX_DEBUG(logger_, "MRAudioRenderer::loopFn: Thread begins. sample_rate="
                             << sample_rate << " channels=" << channels);
  Clock::sharpenCurrentThread();
  const auto period =
      MRAudio::periodSize(sample_rate, channels, audio_period_).value_or(MRAudio::PeriodSize{0, 0});
  std::vector<MRAudio::sample_t> buffer(period.samples + 1);
  while (isRunning()) {
    const auto begin = std::chrono::system_clock::now();
    if (!deliverPeriod(buffer.data(), period.frames, sample_rate, channels)) break;
    const Nanos remaining = begin + audio_period_ - std::chrono::system_clock::now();
    // Never more than a period, even if the wall clock is set back.
    Clock::sleepFor(std::min<Nanos>(remaining, audio_period_));
  }
  LOG4CXX_DEBUG(logger_, "MRAudioRenderer::loopFn: Thread finishes.");
}

bool MRAudioRenderer::deliverPeriod(MRAudio::sample_t* buffer, std::size_t frames, int sample_rate,
                                    int channels) {
  const std::size_t read = srn_audio_device_read_render_data(buffer, frames);
  if (read < frames) {
    LOG4CXX_DEBUG(logger_, "MRAudioRenderer::loopFn: exiting loop (read:"
                               << read << " < num_frames_in_period:" << frames << ")");
    return false;
  }
  if (!on_audio_) {
    LOG4CXX_WARN(logger_,
                 "MRAudioRenderer::loopFn: No callback set in AudioRenderer, audio data dropped");
    return true;
  }
  on_audio_(MRAudioData(buffer, sample_rate, static_cast<std::size_t>(channels), frames));
  return true;
}
