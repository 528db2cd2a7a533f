#include "media/mr_audio_device.h"

#include <utility>

#include "support/callback_guard.h"

namespace {

constexpr std::chrono::milliseconds kAudioPeriod(10);
constexpr MRAudioSettings kDefaultAudioSettings{.sample_rate = 48000, .channels = 2};

/// Calls the device behind `user_data`; no exception reaches the library's C code.
template <class Call>
srn_bool delegate(const log4cxx::LoggerPtr& logger, void* user_data, Call call) {
  if (user_data == nullptr) return SRN_FALSE;
  bool done = false;
  guardCallback(logger, "MRAudioDevice",
                [&] { done = call(*static_cast<MRAudioDevice*>(user_data)); });
  return done ? SRN_TRUE : SRN_FALSE;
}

}  // namespace

const log4cxx::LoggerPtr& MRAudioDevice::logger_ = lastingLogger("MRAudioDevice");

std::ostream& operator<<(std::ostream& out, const MRAudioSettings& settings) {
  return out << "MRAudioSettings: {sampleRate: " << settings.sample_rate
             << ", numChannels: " << settings.channels << "}";
}

std::ostream& operator<<(std::ostream& out, const MRAudioDeviceSettings& settings) {
  return out << "MRAudioDeviceSettings: {publisher: " << settings.publisher
             << ", subscriber: " << settings.subscriber << "}";
}

MRAudioDevice::MRAudioDevice(MRAudioDataCallback&& on_audio)
    : capturer_(kAudioPeriod),
      renderer_(kAudioPeriod, std::move(on_audio)),
      audio_device_callbacks_{.init = onInit,
                              .destroy = onDestroy,
                              .init_capturer = onInitCapturer,
                              .destroy_capturer = onDestroyCapturer,
                              .start_capturer = onStartCapturer,
                              .stop_capturer = onStopCapturer,
                              .is_capturer_initialized = onIsCapturerInitialized,
                              .is_capturer_started = onIsCapturerStarted,
                              .get_estimated_capture_delay = nullptr,
                              .get_capture_settings = onGetCapturerSettings,
                              .init_renderer = onInitRenderer,
                              .destroy_renderer = onDestroyRenderer,
                              .start_renderer = onStartRenderer,
                              .stop_renderer = onStopRenderer,
                              .is_renderer_initialized = onIsRenderInitialized,
                              .is_renderer_started = onIsRenderStarted,
                              .get_estimated_render_delay = nullptr,
                              .get_render_settings = onGetRenderSettings,
                              .user_data = this,
                              .reserved = nullptr},
      audio_settings_{.publisher = kDefaultAudioSettings, .subscriber = kDefaultAudioSettings} {
  if (srn_set_audio_device(&audio_device_callbacks_) != SRN_SUCCESS) {
    LOG4CXX_ERROR(logger_, "Failed to set the global audio device.");
  } else {
    LOG4CXX_DEBUG(logger_, "MRAudioDevice::MRAudioDevice: Audio set OK.");
  }
}

void MRAudioDevice::updateSettings(const MRAudioDeviceSettings& settings) {
  const common::LockGuard lock(settings_mutex_);
  audio_settings_ = settings;
}

MRAudioDeviceSettings MRAudioDevice::currentSettings() {
  const common::LockGuard lock(settings_mutex_);
  return audio_settings_;
}

void MRAudioDevice::stop() {
  stopCapturer();
  renderer_.stop();
  capturer_.destroy();
  renderer_.destroy();
}

void MRAudioDevice::setOnCapturerStartedCallback(MRCapturerStartedCallback&& callback) {
  MRCapturerStartedCallback late;
  {
    // The old callable is left in `callback`, to be destroyed by the caller without the lock.
    const common::LockGuard lock(settings_mutex_);
    on_capturer_started_cb_.swap(callback);
    if (on_capturer_started_cb_ && std::exchange(has_untold_start_, false)) {
      late = on_capturer_started_cb_;
    }
  }
  if (late && capturer_.isRunning()) late();
}

void MRAudioDevice::setOnAudioBuffersDrainedCallback(
    MRAudioDeviceBuffersDrainedCallback&& callback) {
  capturer_.setOnAudioBuffersDrainedCallback(std::move(callback));
}

bool MRAudioDevice::addAudio(const MRAudioData& data) { return capturer_.addAudio(data); }

bool MRAudioDevice::clearAudioBuffers() { return capturer_.clearAudioBuffers(); }

std::chrono::milliseconds MRAudioDevice::getAudioBufferDuration() const {
  return capturer_.getAudioBufferDuration();
}

const MRAudioCapturer& MRAudioDevice::getAudioCapturer() const { return capturer_; }

srn_bool MRAudioDevice::onInit(const srn_audio_device*, void*) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onInit: ");
  return SRN_TRUE;
}

srn_bool MRAudioDevice::onDestroy(const srn_audio_device*, void*) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onDestroy: ");
  return SRN_TRUE;
}

srn_bool MRAudioDevice::onInitCapturer(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onInitCapturer: ");
  return delegate(logger_, user_data, [](MRAudioDevice& device) {
    const MRAudioSettings format = device.currentSettings().publisher;
    return device.capturer_.init(format.sample_rate, format.channels);
  });
}

srn_bool MRAudioDevice::onDestroyCapturer(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onDestroyCapturer: ");
  return delegate(logger_, user_data,
                  [](MRAudioDevice& device) { return device.capturer_.destroy(); });
}

srn_bool MRAudioDevice::onStartCapturer(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onStartCapturer: ");
  return delegate(logger_, user_data, [](MRAudioDevice& device) { return device.startCapturer(); });
}

bool MRAudioDevice::stopCapturer() {
  {
    const common::LockGuard lock(settings_mutex_);
    has_untold_start_ = false;
  }
  return capturer_.stop();
}

bool MRAudioDevice::startCapturer() {
  const bool started = capturer_.start();
  MRCapturerStartedCallback on_started;
  {
    const common::LockGuard lock(settings_mutex_);
    on_started = on_capturer_started_cb_;
    if (started) has_untold_start_ = !on_started;
  }
  if (started && on_started) {
    on_started();
    return true;
  }
  if (!started) {
    LOG4CXX_WARN(logger_, "MRAudioDevice::onStartCapturer: Failed to start the capturer! ");
  }
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onStartCapturer: No capturer started callback set! ");
  return started;
}

srn_bool MRAudioDevice::onStopCapturer(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onStopCapturer: ");
  return delegate(logger_, user_data, [](MRAudioDevice& device) { return device.stopCapturer(); });
}

srn_bool MRAudioDevice::onIsCapturerInitialized(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onIsCapturerInitialized: ");
  return delegate(logger_, user_data, [](MRAudioDevice& device) {
    const bool initialized = device.capturer_.isInitialized();
    LOG4CXX_DEBUG(logger_, "MRAudioDevice::onIsCapturerInitialized: " << initialized);
    return initialized;
  });
}

srn_bool MRAudioDevice::onIsCapturerStarted(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onIsCapturerStarted: ");
  return delegate(logger_, user_data,
                  [](MRAudioDevice& device) { return device.capturer_.isRunning(); });
}

srn_bool MRAudioDevice::onGetCapturerSettings(const srn_audio_device*, void* user_data,
                                              srn_audio_device_settings* settings) {
  if (settings == nullptr) return SRN_FALSE;
  return delegate(logger_, user_data, [settings](MRAudioDevice& device) {
    const MRAudioSettings format = device.currentSettings().publisher;
    *settings = {.sampling_rate = format.sample_rate, .number_of_channels = format.channels};
    LOG4CXX_DEBUG(logger_, "MRAudioDevice::onGetCapturerSettings: " << format);
    return true;
  });
}

srn_bool MRAudioDevice::onInitRenderer(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onInitRenderer: ");
  return delegate(logger_, user_data, [](MRAudioDevice& device) {
    const MRAudioSettings format = device.currentSettings().subscriber;
    return device.renderer_.init(format.sample_rate, format.channels);
  });
}

srn_bool MRAudioDevice::onDestroyRenderer(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onDestroyRenderer: ");
  return delegate(logger_, user_data,
                  [](MRAudioDevice& device) { return device.renderer_.destroy(); });
}

srn_bool MRAudioDevice::onStartRenderer(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onStartRenderer: ");
  return delegate(logger_, user_data,
                  [](MRAudioDevice& device) { return device.renderer_.start(); });
}

srn_bool MRAudioDevice::onStopRenderer(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onStopRenderer: ");
  return delegate(logger_, user_data,
                  [](MRAudioDevice& device) { return device.renderer_.stop(); });
}

srn_bool MRAudioDevice::onIsRenderInitialized(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onIsRenderInitialized: ");
  return delegate(logger_, user_data, [](MRAudioDevice& device) {
    const bool initialized = device.renderer_.isInitialized();
    LOG4CXX_DEBUG(logger_, "MRAudioDevice::onIsRendererInitialized: " << initialized);
    return initialized;
  });
}

srn_bool MRAudioDevice::onIsRenderStarted(const srn_audio_device*, void* user_data) {
  LOG4CXX_DEBUG(logger_, "MRAudioDevice::onIsRenderStarted: ");
  return delegate(logger_, user_data,
                  [](MRAudioDevice& device) { return device.renderer_.isRunning(); });
}

srn_bool MRAudioDevice::onGetRenderSettings(const srn_audio_device*, void* user_data,
                                            srn_audio_device_settings* settings) {
  if (settings == nullptr) return SRN_FALSE;
  return delegate(logger_, user_data, [settings](MRAudioDevice& device) {
    const MRAudioSettings format = device.currentSettings().subscriber;
    *settings = {.sampling_rate = format.sample_rate, .number_of_channels = format.channels};
    LOG4CXX_DEBUG(logger_, "MRAudioDevice::onGetRenderSettings: " << format);
    return true;
  });
}
