#include "audio.h"

#include <cstring>
#include <iterator>
#include <sstream>

#include "script.h"
#include "scripted_sarnet.h"
#include "strand.h"

namespace scripted {
namespace {

using Table = srn_audio_device_callbacks;

constexpr int kNoSlot = -1;
constexpr int kUnknownSlot = -2;
constexpr size_t kKeptSamples = 2'097'152;
constexpr std::chrono::seconds kLongestBlock{20};

struct Device {
  std::mutex mutex;
  std::optional<Table> table;
  const srn_session* running_for = nullptr;
  bool running = false;
  std::mutex turn;  // held while a slot runs: never two at once
  srn_audio_device handle;
};

// The device's input, and the output prepared for it.
struct Flow {
  std::mutex mutex;
  std::condition_variable released;
  std::vector<int16_t> captured = std::vector<int16_t>(kKeptSamples);
  uint64_t captured_total = 0;
  size_t capture_channels = 1;
  uint64_t rendered_total = 0;
  size_t render_channels = 1;
  long render_answer = -1;
  bool render_blocked = false;
};

Device& device() {
  static auto* const instance = new Device;
  return *instance;
}

Flow& flow() {
  static auto* const instance = new Flow;
  return *instance;
}

std::optional<Table> installedDevice() {
  const std::lock_guard lock(device().mutex);
  return device().table;
}

int callSlot(const std::string& name, std::optional<void*> user_data = std::nullopt,
             srn_audio_device_settings* settings = nullptr) {
  std::istringstream words(kDeviceSlots);
  const std::vector<std::string> names{std::istream_iterator<std::string>(words), {}};
  const auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) return kUnknownSlot;
  const auto table = installedDevice();
  if (!table) return kNoSlot;
  void* const data = user_data.value_or(table->user_data);
  const auto place = static_cast<size_t>(found - names.begin()) * sizeof(void*);
  // The slots differ only in that those for settings take a record.
  const auto call = [&](auto slot, auto... record) {
    std::memcpy(&slot, reinterpret_cast<const char*>(&*table) + place, sizeof slot);
    if (slot == nullptr) return kNoSlot;
    const std::lock_guard turn(device().turn);
    return int{slot(&device().handle, data, record...)};
  };
  return name.ends_with("_settings") ? call(Table{}.get_capture_settings, settings)
                                     : call(Table{}.init);
}

void startSide(const std::string& side, const char* get_settings, void (*take)(int)) {
  if (callSlot("is_" + side + "_initialized") == SRN_TRUE) return;
  srn_audio_device_settings settings{};
  if (callSlot(get_settings, std::nullopt, &settings) == SRN_TRUE) {
    take(settings.number_of_channels);
  }
  if (callSlot("init_" + side) == SRN_TRUE) callSlot("start_" + side);
}

void startNow(const srn_session& session) {
  if (!installedDevice()) return;
  {
    const std::lock_guard lock(device().mutex);
    if (device().running) return;
    device().running = true;
    device().running_for = &session;
  }
  callSlot("init");
  startSide("capturer", "get_capture_settings", scripted_capture_channels);
  startSide("renderer", "get_render_settings", scripted_render_channels);
}

// Null: any session.
void stopNow(const srn_session* session) {
  {
    const std::lock_guard lock(device().mutex);
    if (!device().running || (session != nullptr && device().running_for != session)) return;
    device().running = false;
  }
  for (const char* slot :
       {"stop_capturer", "destroy_capturer", "stop_renderer", "destroy_renderer", "destroy"}) {
    callSlot(slot);
  }
}

}  // namespace

void installDevice(const Table* table) {
  const std::lock_guard lock(device().mutex);
  device().table = table == nullptr ? std::nullopt : std::optional(*table);
}

void scheduleDeviceStart(srn_session& session, std::chrono::milliseconds delay) {
  strands().device.post(
      [kept = shared(&session)] {
        if (kept != nullptr && kept->joined.load() && kept->gate.open()) startNow(*kept);
      },
      delay);
}

void scheduleDeviceStop(const srn_session* session) {
  strands().device.post([session] { stopNow(session); });
}

void finishDevice() {
  strands().device.stop();
  std::thread([] { stopNow(nullptr); }).join();
}

void resetAudioFlow() {
  const std::lock_guard lock(flow().mutex);
  flow().captured_total = flow().rendered_total = 0;
  flow().capture_channels = flow().render_channels = 1;
  flow().render_answer = -1;
  flow().render_blocked = false;
  flow().released.notify_all();
}

void startCapturer(srn_publisher& publisher) {
  publisher.capturer_gate.pass([] {},
                               [&publisher] {
                                 const auto& table = *publisher.capturer_table;
                                 if (table.init(&publisher.capturer, table.user_data) != SRN_TRUE)
                                   return;
                                 publisher.capturer_initialised.store(true);
                                 srn_video_capturer_settings settings{};
                                 table.get_capture_settings(&publisher.capturer, table.user_data,
                                                            &settings);
                                 table.start(&publisher.capturer, table.user_data);
                               });
}

void closeCapturer(srn_publisher& publisher) {
  publisher.capturer_gate.close();
  if (!publisher.capturer_initialised.exchange(false)) return;
  const auto& table = *publisher.capturer_table;
  table.destroy(&publisher.capturer, table.user_data);
  publisher.capturer.alive.store(false);
}

}  // namespace scripted

using scripted::flow;
using scripted::kKeptSamples;

srn_status srn_audio_device_write_capture_data(const int16_t* buffer, size_t count) {
  SCRIPTED_FUNCTION;
  const auto failure = function.failure();
  if (!failure && buffer != nullptr) {
    const std::lock_guard lock(flow().mutex);
    const size_t samples = count * flow().capture_channels;
    for (size_t i = 0; i < samples; ++i) {
      flow().captured[flow().captured_total++ % kKeptSamples] = buffer[i];
    }
  }
  function.count();
  return failure.value_or(buffer == nullptr ? int{SRN_SESSION_NULL_OR_INVALID_PARAMETER}
                                            : int{SRN_SUCCESS});
}

size_t srn_audio_device_read_render_data(int16_t* buffer, size_t count) {
  SCRIPTED_MEDIA_CALL();
  if (failure || buffer == nullptr) return 0;
  std::unique_lock lock(flow().mutex);
  flow().released.wait_for(lock, scripted::kLongestBlock, [] { return !flow().render_blocked; });
  const long answer = flow().render_answer;
  const size_t frames = answer < 0 ? count : std::min(count, static_cast<size_t>(answer));
  for (size_t i = 0; i < frames * flow().render_channels; ++i) {
    buffer[i] = static_cast<int16_t>(flow().rendered_total++ % 32'768);
  }
  return frames;
}

void scripted_capture_channels(int channels) {
  const std::lock_guard lock(flow().mutex);
  flow().capture_channels = static_cast<size_t>(std::max(channels, 0));
}

void scripted_render_channels(int channels) {
  const std::lock_guard lock(flow().mutex);
  flow().render_channels = static_cast<size_t>(std::max(channels, 0));
}

uint64_t scripted_captured_total(void) {
  const std::lock_guard lock(flow().mutex);
  return flow().captured_total;
}

size_t scripted_captured(uint64_t from, int16_t* out, size_t max) {
  const std::lock_guard lock(flow().mutex);
  const uint64_t total = flow().captured_total;
  const uint64_t oldest = total > kKeptSamples ? total - kKeptSamples : 0;
  if (out == nullptr || from < oldest || from >= total) return 0;
  const auto samples = static_cast<size_t>(std::min<uint64_t>(max, total - from));
  for (size_t i = 0; i < samples; ++i) out[i] = flow().captured[(from + i) % kKeptSamples];
  return samples;
}

void scripted_render_answer(long frames) {
  const std::lock_guard lock(flow().mutex);
  flow().render_answer = frames;
}

void scripted_render_block(int on) {
  const std::lock_guard lock(flow().mutex);
  flow().render_blocked = on != 0;
  flow().released.notify_all();
}

int scripted_device_slot(const char* slot) { return scripted::callSlot(slot); }

int scripted_device_slot_with(const char* slot, void* user_data) {
  return scripted::callSlot(slot, user_data);
}

int scripted_device_settings(const char* slot, int32_t* rate, int32_t* channels) {
  srn_audio_device_settings settings{};
  const int result = scripted::callSlot(slot, std::nullopt, &settings);
  *rate = settings.sampling_rate;
  *channels = settings.number_of_channels;
  return result;
}

int scripted_device_start(void) {
  const auto session = scripted::currentSession();
  if (session == nullptr || !session->joined.load()) return 0;
  scripted::scheduleDeviceStart(*session, {});
  return 1;
}

void* scripted_device_user_data(void) {
  const auto table = scripted::installedDevice();
  return table ? table->user_data : nullptr;
}
