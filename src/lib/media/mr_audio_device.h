#pragma once

#include <sarnet/sarnet.h>

#include <chrono>
#include <functional>
#include <ostream>

#include "common/mutex.h"
#include "media/mr_audio_capturer.h"
#include "media/mr_audio_data.h"
#include "media/mr_audio_renderer.h"
#include "support/logger.h"

struct MRAudioSettings {
  int sample_rate = 0;  ///< samples per second of one channel
  int channels = 0;

  bool operator==(const MRAudioSettings&) const = default;
};

/// Formats of the two directions: what the program sends and what it receives.
struct MRAudioDeviceSettings {
  MRAudioSettings publisher;
  MRAudioSettings subscriber;

  bool operator==(const MRAudioDeviceSettings&) const = default;
};

std::ostream& operator<<(std::ostream& out, const MRAudioSettings& settings);
std::ostream& operator<<(std::ostream& out, const MRAudioDeviceSettings& settings);

/// Called on a library thread with no lock held: may only post.
using MRCapturerStartedCallback = std::function<void()>;

/// Called on the capturer's thread with its mutex held: may only post.
using MRAudioDeviceBuffersDrainedCallback = std::function<void()>;

/// The audio device given to the library in place of sound hardware. Its callback table maps each
/// slot to the capturer or the renderer.
///
/// The library keeps the address of the object and of its table until srn_destroy has returned, so
/// the object must not move and must outlive that. All public functions may be called from any
/// thread.
class MRAudioDevice {
 public:
  /// Installs itself in the library; logs if the library refuses, and then never gets a callback.
  explicit MRAudioDevice(MRAudioDataCallback&& on_audio);

  MRAudioDevice(const MRAudioDevice&) = delete;
  MRAudioDevice& operator=(const MRAudioDevice&) = delete;

  /// Sets the formats reported to the library from now on; a running side keeps its format.
  void updateSettings(const MRAudioDeviceSettings& settings);

  /// Winds both sides down. Blocks for two periods at most.
  void stop();

  /// Called at each start of the capturer, on the thread that starts it. If the capturer was
  /// started while no callback was set, and still runs, the callback is called right here.
  void setOnCapturerStartedCallback(MRCapturerStartedCallback&& callback);
  void setOnAudioBuffersDrainedCallback(MRAudioDeviceBuffersDrainedCallback&& callback);

  bool addAudio(const MRAudioData& data);
  bool clearAudioBuffers();
  std::chrono::milliseconds getAudioBufferDuration() const;

  const MRAudioCapturer& getAudioCapturer() const;

 private:
  static srn_bool onInit(const srn_audio_device* device, void* user_data);
  static srn_bool onDestroy(const srn_audio_device* device, void* user_data);
  static srn_bool onInitCapturer(const srn_audio_device* device, void* user_data);
  static srn_bool onDestroyCapturer(const srn_audio_device* device, void* user_data);
  static srn_bool onStartCapturer(const srn_audio_device* device, void* user_data);
  static srn_bool onStopCapturer(const srn_audio_device* device, void* user_data);
  static srn_bool onIsCapturerInitialized(const srn_audio_device* device, void* user_data);
  static srn_bool onIsCapturerStarted(const srn_audio_device* device, void* user_data);
  static srn_bool onGetCapturerSettings(const srn_audio_device* device, void* user_data,
                                        srn_audio_device_settings* settings);
  static srn_bool onInitRenderer(const srn_audio_device* device, void* user_data);
  static srn_bool onDestroyRenderer(const srn_audio_device* device, void* user_data);
  static srn_bool onStartRenderer(const srn_audio_device* device, void* user_data);
  static srn_bool onStopRenderer(const srn_audio_device* device, void* user_data);
  static srn_bool onIsRenderInitialized(const srn_audio_device* device, void* user_data);
  static srn_bool onIsRenderStarted(const srn_audio_device* device, void* user_data);
  static srn_bool onGetRenderSettings(const srn_audio_device* device, void* user_data,
                                      srn_audio_device_settings* settings);

  bool startCapturer();
  bool stopCapturer();
  MRAudioDeviceSettings currentSettings();

  static const log4cxx::LoggerPtr& logger_;

  MRAudioCapturer capturer_;
  MRAudioRenderer renderer_;
  srn_audio_device_callbacks audio_device_callbacks_;
  common::Mutex settings_mutex_;  ///< a leaf; guards what follows
  MRAudioDeviceSettings audio_settings_ GUARDED_BY(settings_mutex_);
  MRCapturerStartedCallback on_capturer_started_cb_ GUARDED_BY(settings_mutex_);
  bool has_untold_start_ GUARDED_BY(settings_mutex_) = false;
};
