#include "audio/audio_device.h"

#include <algorithm>
#include <utility>

#include "base/log.h"
#include "base/thread_keeper.h"

namespace sarnet {
namespace {

// The handle carries no state: it only fills a place in the slots' signatures.
const srn_audio_device* device_handle() {
  static const char place = 0;
  return reinterpret_cast<const srn_audio_device*>(&place);
}

using Slot = srn_bool (*)(const srn_audio_device*, void*);

bool call(Slot slot, const srn_audio_device_callbacks& table, bool if_null = true) {
  return slot == nullptr ? if_null : slot(device_handle(), table.user_data) != SRN_FALSE;
}

template <class SettingsSlot>
std::optional<AudioFormat> ask_format(SettingsSlot slot, const srn_audio_device_callbacks& table,
                                      const char* side) {
  srn_audio_device_settings settings{};
  if (slot == nullptr || slot(device_handle(), table.user_data, &settings) == SRN_FALSE) {
    return std::nullopt;
  }
  const AudioFormat format{settings.sampling_rate, settings.number_of_channels};
  if (format.valid()) return format;
  SARNET_LOG(kError, "The audio device's " << side << " cannot run at " << format.rate
                                           << " Hz with " << format.channels << " channels");
  return std::nullopt;
}

}  // namespace

AudioDevice::AudioDevice(Counters& counters) : capture_(counters), render_(counters) {}

void AudioDevice::set_callbacks(const srn_audio_device_callbacks* callbacks) {
  {
    const common::LockGuard lock(mutex_);
    table_ = callbacks == nullptr ? std::nullopt : std::optional(*callbacks);
    wind_down_ = true;
    for (Attachment& each : sessions_) each.started = false;
  }
  changed_.notify_all();
}

void AudioDevice::session_connected(const void* session) {
  {
    const common::LockGuard lock(mutex_);
    sessions_.push_back({session, Clock::now() + kSettleTime});
    if (!running_thread_) {
      const std::uint64_t generation = ++generation_;
      ThreadKeeper::instance().start("srn-device", [this, generation] { drive(generation); });
      running_thread_ = true;
    }
  }
  changed_.notify_all();
}

void AudioDevice::session_over(const void* session) {
  {
    const common::LockGuard lock(mutex_);
    const auto gone = std::remove_if(sessions_.begin(), sessions_.end(),
                                     [&](const auto& each) { return each.session == session; });
    if (gone == sessions_.end()) return;
    sessions_.erase(gone, sessions_.end());
    if (sessions_.empty()) {
      wind_down_ = true;
      // Here, not on the driver's thread later: the program's render thread must stop at once.
      render_.stop();
    }
  }
  changed_.notify_all();
}

void AudioDevice::shut_down() {
  {
    const common::LockGuard lock(mutex_);
    sessions_.clear();
    running_thread_ = false;
    ++generation_;
    render_.stop();
  }
  changed_.notify_all();
}

AudioDevice::Orders AudioDevice::wait_for_orders(std::uint64_t generation) {
  common::UniqueLock lock(mutex_);
  while (true) {
    Orders orders;
    orders.quit = generation != generation_;
    orders.wind_down = std::exchange(wind_down_, false) || orders.quit;
    if (orders.quit) return orders;
    auto next = Clock::time_point::max();
    const auto now = Clock::now();
    for (Attachment& each : sessions_) {
      if (each.started) continue;
      if (each.due > now) {
        next = std::min(next, each.due);
      } else {
        each.started = true;
        orders.bring_up = table_.has_value();
      }
    }
    if (orders.bring_up) orders.table = *table_;
    if (orders.bring_up || orders.wind_down) return orders;
    if (next == Clock::time_point::max()) {
      changed_.wait(lock.native());
    } else {
      changed_.wait_until(lock.native(), next);
    }
  }
}

void AudioDevice::drive(std::uint64_t generation) {
  Driven driven;
  while (true) {
    const Orders orders = wait_for_orders(generation);
    if (orders.wind_down) wind_down(driven);
    if (orders.quit) return;
    if (orders.bring_up) bring_up(*this, driven, orders);
  }
}

void AudioDevice::bring_up(AudioDevice& device, Driven& driven, const Orders& orders) {
  driven.table = orders.table;
  if (!driven.device) {
    if (!call(driven.table.init, driven.table)) {
      SARNET_LOG(kWarn, "The audio device's init failed");
      return;
    }
    driven.device = true;
  }
  device.bring_up_renderer(driven);
  device.bring_up_capturer(driven);
}

void AudioDevice::bring_up_renderer(Driven& driven) {
  const auto& table = driven.table;
  const bool initialized = call(table.is_renderer_initialized, table, driven.renderer);
  if (driven.renderer && initialized && call(table.is_renderer_started, table)) return;
  // Left over from a session that the program ended, wholly or in part, on its side.
  if (driven.renderer || initialized) wind_down_renderer(driven);
  const auto format = ask_format(table.get_render_settings, table, "renderer");
  if (!format) return;
  driven.renderer = true;
  if (!call(table.init_renderer, table)) {
    SARNET_LOG(kWarn, "The audio device's init_renderer failed");
    return;
  }
  render_.start(*format);  // first: the program reads as soon as it is started
  if (!call(table.start_renderer, table)) {
    SARNET_LOG(kWarn, "The audio device's start_renderer failed");
  }
}

void AudioDevice::bring_up_capturer(Driven& driven) {
  const auto& table = driven.table;
  const bool initialized = call(table.is_capturer_initialized, table, driven.capturer);
  if (driven.capturer && initialized && call(table.is_capturer_started, table)) return;
  if (driven.capturer || initialized) wind_down_capturer(driven);
  const auto format = ask_format(table.get_capture_settings, table, "capturer");
  if (!format) return;
  driven.capturer = true;
  if (!call(table.init_capturer, table)) {
    SARNET_LOG(kWarn, "The audio device's init_capturer failed");
    return;
  }
  capture_.start(*format);
  if (!call(table.start_capturer, table)) {
    SARNET_LOG(kWarn, "The audio device's start_capturer failed");
  }
}

// The program may have stopped a side itself, as it does when it leaves: so its state is queried
// first, and a slot that still returns SRN_FALSE is no fault.
void AudioDevice::wind_down_renderer(Driven& driven) {
  const auto& table = driven.table;
  render_.stop();
  if (call(table.is_renderer_started, table)) call(table.stop_renderer, table);
  if (call(table.is_renderer_initialized, table)) call(table.destroy_renderer, table);
  driven.renderer = false;
}

void AudioDevice::wind_down_capturer(Driven& driven) {
  const auto& table = driven.table;
  if (call(table.is_capturer_started, table)) call(table.stop_capturer, table);
  capture_.stop();
  if (call(table.is_capturer_initialized, table)) call(table.destroy_capturer, table);
  driven.capturer = false;
}

void AudioDevice::wind_down(Driven& driven) {
  if (driven.capturer) wind_down_capturer(driven);
  if (driven.renderer) wind_down_renderer(driven);
  if (driven.device) call(driven.table.destroy, driven.table);
  driven.device = false;
}

}  // namespace sarnet
