#pragma once

#include <sarnet/sarnet.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <optional>
#include <vector>

#include "audio/capture_path.h"
#include "audio/render_path.h"
#include "base/statistics.h"
#include "common/mutex.h"

namespace sarnet {

// The process's audio device: drives the program's table while a session is connected. All slots
// come on one thread, made for the first session and ended by shut_down(); the ThreadKeeper joins
// it. Any thread may call anything; nothing here waits for a slot.
class AudioDevice {
 public:
  explicit AudioDevice(Counters& counters);

  // Copies the table; null removes it. A running device is first wound down through the old table.
  void set_callbacks(const srn_audio_device_callbacks* callbacks);

  // The session's on_connected has returned: the device starts kSettleTime later, so that the
  // program has had time to set up its formats.
  void session_connected(const void* session);
  // Winds the device down when this was the last session. May be repeated.
  void session_over(const void* session);
  // Winds down and ends the thread. The next session starts a new one.
  void shut_down();

  CapturePath& capture() { return capture_; }
  RenderPath& render() { return render_; }

 private:
  using Clock = std::chrono::steady_clock;
  using Slot = srn_bool (*)(const srn_audio_device*, void*);
  using SettingsSlot = srn_bool (*)(const srn_audio_device*, void*, srn_audio_device_settings*);

  static constexpr std::chrono::milliseconds kSettleTime{75};

  struct Attachment {
    const void* session;
    Clock::time_point due;
    bool started = false;
  };
  // What the driver has to do next.
  struct Orders {
    bool wind_down = false;
    bool bring_up = false;
    bool quit = false;
    srn_audio_device_callbacks table{};
  };
  struct Driven {
    srn_audio_device_callbacks table{};
    bool device = false;
    bool renderer = false;
    bool capturer = false;
  };

  void drive(std::uint64_t generation);
  Orders wait_for_orders(std::uint64_t generation);
  static void bring_up(AudioDevice& device, Driven& driven, const Orders& orders);
  void wind_down(Driven& driven);
  void bring_up_renderer(Driven& driven);
  void bring_up_capturer(Driven& driven);
  void wind_down_renderer(Driven& driven);
  void wind_down_capturer(Driven& driven);

  CapturePath capture_;
  RenderPath render_;

  common::Mutex mutex_;
  std::condition_variable changed_;
  std::optional<srn_audio_device_callbacks> table_ GUARDED_BY(mutex_);
  std::vector<Attachment> sessions_ GUARDED_BY(mutex_);
  bool wind_down_ GUARDED_BY(mutex_) = false;
  bool running_thread_ GUARDED_BY(mutex_) = false;
  std::uint64_t generation_ GUARDED_BY(mutex_) = 0;  // of the driver's thread; an older one quits
};

}  // namespace sarnet
