#include "audio_device.h"

#include <mutex>
#include <string_view>

#include "answers.h"
#include "audio_flow.h"
#include "script.h"
#include "strand.h"

namespace scripted {
namespace {

using PlainSlot = srn_bool (*srn_audio_device_callbacks::*)(const srn_audio_device*, void*);
using SettingsSlot = srn_bool (*srn_audio_device_callbacks::*)(const srn_audio_device*, void*,
                                                               srn_audio_device_settings*);

struct NamedPlainSlot {
  std::string_view name;
  PlainSlot slot;
};

constexpr NamedPlainSlot kPlainSlots[] = {
    {"init", &srn_audio_device_callbacks::init},
    {"destroy", &srn_audio_device_callbacks::destroy},
    {"init_capturer", &srn_audio_device_callbacks::init_capturer},
    {"destroy_capturer", &srn_audio_device_callbacks::destroy_capturer},
    {"start_capturer", &srn_audio_device_callbacks::start_capturer},
    {"stop_capturer", &srn_audio_device_callbacks::stop_capturer},
    {"is_capturer_initialized", &srn_audio_device_callbacks::is_capturer_initialized},
    {"is_capturer_started", &srn_audio_device_callbacks::is_capturer_started},
    {"get_estimated_capture_delay", &srn_audio_device_callbacks::get_estimated_capture_delay},
    {"init_renderer", &srn_audio_device_callbacks::init_renderer},
    {"destroy_renderer", &srn_audio_device_callbacks::destroy_renderer},
    {"start_renderer", &srn_audio_device_callbacks::start_renderer},
    {"stop_renderer", &srn_audio_device_callbacks::stop_renderer},
    {"is_renderer_initialized", &srn_audio_device_callbacks::is_renderer_initialized},
    {"is_renderer_started", &srn_audio_device_callbacks::is_renderer_started},
    {"get_estimated_render_delay", &srn_audio_device_callbacks::get_estimated_render_delay},
};

struct NamedSettingsSlot {
  std::string_view name;
  SettingsSlot slot;
};

constexpr NamedSettingsSlot kSettingsSlots[] = {
    {"get_capture_settings", &srn_audio_device_callbacks::get_capture_settings},
    {"get_render_settings", &srn_audio_device_callbacks::get_render_settings},
};

struct Device {
  std::mutex mutex;
  std::optional<srn_audio_device_callbacks> table;
  const srn_session* running_for = nullptr;
  bool running = false;
  std::mutex turn;  // held while a slot runs: never two at once
  srn_audio_device handle;
};

Device& device() {
  static Device* const instance = new Device;
  return *instance;
}

constexpr int kNoSlot = -1;
constexpr int kUnknownSlot = -2;

int call(const char* slot) { return callDeviceSlot(slot, std::nullopt, nullptr); }

void callSettings(const char* slot, void (*take)(int)) {
  srn_audio_device_settings settings{};
  if (callDeviceSlot(slot, std::nullopt, &settings) == SRN_TRUE) take(settings.number_of_channels);
}

void startNow(const srn_session& session) {
  if (!installedDevice()) return;
  {
    const std::lock_guard lock(device().mutex);
    if (device().running) return;
    device().running = true;
    device().running_for = &session;
  }
  call("init");
  if (call("is_capturer_initialized") != SRN_TRUE) {
    callSettings("get_capture_settings", setCaptureChannels);
    if (call("init_capturer") == SRN_TRUE) call("start_capturer");
  }
  if (call("is_renderer_initialized") != SRN_TRUE) {
    callSettings("get_render_settings", setRenderChannels);
    if (call("init_renderer") == SRN_TRUE) call("start_renderer");
  }
}

// Null: whichever session it is.
void stopNow(const srn_session* session) {
  {
    const std::lock_guard lock(device().mutex);
    if (!device().running || (session != nullptr && device().running_for != session)) return;
    device().running = false;
  }
  if (!installedDevice()) return;
  for (const char* slot :
       {"stop_capturer", "destroy_capturer", "stop_renderer", "destroy_renderer", "destroy"}) {
    call(slot);
  }
}

}  // namespace

void installDevice(const srn_audio_device_callbacks* table) {
  const std::lock_guard lock(device().mutex);
  if (table == nullptr) {
    device().table.reset();
  } else {
    device().table = *table;
  }
}

std::optional<srn_audio_device_callbacks> installedDevice() {
  const std::lock_guard lock(device().mutex);
  return device().table;
}

int callDeviceSlot(const char* slot, std::optional<void*> user_data,
                   srn_audio_device_settings* settings) {
  const auto table = installedDevice();
  const std::string_view name = slot == nullptr ? "" : slot;
  void* const data = user_data.value_or(table ? table->user_data : nullptr);
  const auto finish = [&](int result) {
    script().slot(name, result);
    return result;
  };
  for (const auto& each : kPlainSlots) {
    if (each.name != name) continue;
    if (!table || (*table).*each.slot == nullptr) return kNoSlot;
    const std::lock_guard turn(device().turn);
    return finish(((*table).*each.slot)(&device().handle, data));
  }
  for (const auto& each : kSettingsSlots) {
    if (each.name != name) continue;
    if (!table || (*table).*each.slot == nullptr) return kNoSlot;
    const std::lock_guard turn(device().turn);
    return finish(((*table).*each.slot)(&device().handle, data, settings));
  }
  return kUnknownSlot;
}

void scheduleDeviceStart(srn_session& session) {
  auto kept = std::static_pointer_cast<srn_session>(session.self);
  if (kept == nullptr) return;
  strands().device.post(delayOf(Event::audio_device), [kept] {
    if (kept->joined.load() && kept->gate.open()) startNow(*kept);
  });
}

void scheduleDeviceStop(const srn_session* session) {
  strands().device.post([session] { stopNow(session); });
}

void finishDevice() {
  strands().device.post([] { stopNow(nullptr); });
  strands().device.finish();
}

void startCapturer(srn_publisher& publisher) {
  if (callCapturerSlot(publisher, "init", std::nullopt, nullptr) != SRN_TRUE) return;
  srn_video_capturer_settings settings{};
  callCapturerSlot(publisher, "get_capture_settings", std::nullopt, &settings);
  callCapturerSlot(publisher, "start", std::nullopt, nullptr);
}

void closeCapturer(srn_publisher& publisher) {
  publisher.capturer_gate.close();
  if (!publisher.capturer_initialised.exchange(false)) return;
  const auto& table = publisher.capturer_table;
  if (table.destroy != nullptr) {
    script().slot("capturer.destroy", table.destroy(&publisher.capturer, table.user_data));
  }
  publisher.capturer.alive.store(false);
}

int callCapturerSlot(srn_publisher& publisher, const char* slot, std::optional<void*> user_data,
                     srn_video_capturer_settings* settings) {
  if (!publisher.has_capturer) return kNoSlot;
  const auto& table = publisher.capturer_table;
  const std::string_view name = slot == nullptr ? "" : slot;
  const bool wants_settings = name == "get_capture_settings";
  const auto plain = name == "init"      ? table.init
                     : name == "start"   ? table.start
                     : name == "stop"    ? table.stop
                     : name == "destroy" ? table.destroy
                                         : nullptr;
  if (plain == nullptr && !(wants_settings && table.get_capture_settings != nullptr)) {
    return name == "stop" || wants_settings ? kNoSlot : kUnknownSlot;
  }
  if (!publisher.capturer_gate.enter([] {})) return kNoSlot;
  const Inside inside(publisher.capturer_gate);
  void* const data = user_data.value_or(table.user_data);
  const int result = wants_settings
                         ? table.get_capture_settings(&publisher.capturer, data, settings)
                         : plain(&publisher.capturer, data);
  if (name == "init" && result == SRN_TRUE) publisher.capturer_initialised.store(true);
  if (name == "destroy") publisher.capturer_initialised.store(false);
  script().slot("capturer." + std::string(name), result);
  return result;
}

}  // namespace scripted
