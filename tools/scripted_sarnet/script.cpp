#include "script.h"

#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace scripted {
namespace {

using Clock = std::chrono::steady_clock;

// A runaway loop in a test must not fill the memory.
constexpr size_t kMostText = 64 << 20;
constexpr size_t kMostFaults = 1000;

struct Functions {
  std::mutex mutex;
  std::map<std::string, Function> named;
};

Functions& functions() {
  static auto* const instance = new Functions;
  return *instance;
}

bool isExported(const char* name) {
  Dl_info self{};
  dladdr(reinterpret_cast<const void*>(&functionNamed), &self);
  void* const library = dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
  const bool found = library != nullptr && dlsym(library, name) != nullptr;
  if (library != nullptr) dlclose(library);
  return found;
}

// A callback table consists of pointers only.
void printSlots(std::ostream& out, const void* table, size_t size, const char* names) {
  if (table == nullptr) return print(out, table);
  std::vector<const void*> slots(size / sizeof(void*));
  std::memcpy(slots.data(), table, size);
  std::istringstream words(names);
  const char* separator = "[";
  for (const void* slot : slots) {
    std::string word;
    words >> word;
    if (slot != nullptr) out << std::exchange(separator, " ") << word;
  }
  out << ']';
}

}  // namespace

Function* functionNamed(const char* name) {
  if (name == nullptr || std::strncmp(name, "srn_", 4) != 0) return nullptr;
  const std::lock_guard lock(functions().mutex);
  auto& named = functions().named;
  const auto found = named.find(name);
  if (found != named.end()) return &found->second;
  return isExported(name) ? &named.try_emplace(name, name).first->second : nullptr;
}

void print(std::ostream& out, const char* text) {
  if (text == nullptr) {
    out << "null";
  } else {
    out << '"' << text << '"';
  }
}

void print(std::ostream& out, const Handle* handle) {
  if (handle == nullptr) {
    out << "null";
  } else {
    out << handle->number;
  }
}

void print(std::ostream& out, const void* pointer) { out << (pointer == nullptr ? "null" : "set"); }

void print(std::ostream& out, const srn_session_callbacks* table) {
  printSlots(out, table, sizeof *table,
             "on_connected on_disconnected on_connection_created on_connection_dropped "
             "on_stream_received on_stream_dropped on_stream_has_audio_changed "
             "on_stream_has_video_changed on_stream_has_captions_changed "
             "on_stream_video_dimensions_changed on_stream_video_type_changed on_signal_received "
             "on_reconnection_started on_reconnected on_archive_started on_archive_stopped "
             "on_error on_mute_forced user_data reserved");
}

void print(std::ostream& out, const srn_publisher_callbacks* table) {
  printSlots(out, table, sizeof *table,
             "on_stream_created on_stream_destroyed on_render_frame on_audio_level_updated "
             "on_publisher_mute_forced on_audio_stats on_video_stats on_error on_video_disabled "
             "on_video_enabled on_video_disable_warning on_video_disable_warning_lifted user_data "
             "reserved");
}

void print(std::ostream& out, const srn_subscriber_callbacks* table) {
  printSlots(
      out, table, sizeof *table,
      "on_connected on_disconnected on_reconnected on_render_frame on_video_disabled "
      "on_video_enabled on_audio_disabled on_audio_enabled on_video_data_received "
      "on_video_disable_warning on_caption_text on_video_disable_warning_lifted "
      "on_audio_stats on_video_stats on_audio_level_updated on_error on_audio_data user_data "
      "reserved");
}

const char* const kDeviceSlots =
    "init destroy init_capturer destroy_capturer start_capturer stop_capturer "
    "is_capturer_initialized is_capturer_started get_estimated_capture_delay get_capture_settings "
    "init_renderer destroy_renderer start_renderer stop_renderer is_renderer_initialized "
    "is_renderer_started get_estimated_render_delay get_render_settings user_data reserved";

void print(std::ostream& out, const srn_audio_device_callbacks* table) {
  printSlots(out, table, sizeof *table, kDeviceSlots);
}

void print(std::ostream& out, const srn_video_capturer_callbacks* table) {
  printSlots(out, table, sizeof *table,
             "init destroy start stop get_capture_settings user_data reserved");
}

std::optional<srn_status> Function::failure() {
  int left = failures.load();
  while (left > 0 && !failures.compare_exchange_weak(left, left - 1)) {
  }
  return left == 0 ? std::nullopt : std::optional(status.load());
}

Function::Function(const std::string& function_name)
    : name(function_name),
      times(name.ends_with("_data") || name.ends_with("provide_frame") ? kTimes : 0) {}

void Function::count() {
  if (!times.empty()) {
    const std::chrono::nanoseconds now = Clock::now().time_since_epoch();
    times[static_cast<size_t>(calls.load()) % kTimes].store(now.count());
  }
  ++calls;
  script().wakeWaiters();
}

Script::Script() {
  const char* const path = std::getenv("SCRIPTED_CALLS_FILE");
  if (path != nullptr) file_ = std::fopen(path, "a");
}

void Script::append(std::string line) {
  line += '\n';
  const std::lock_guard lock(mutex_);
  if (lines_.size() < kMostText) lines_ += line;
  if (file_ != nullptr) {
    std::fputs(line.c_str(), file_);
    std::fflush(file_);
  }
}

void Script::fault(const std::string& text) {
  const std::lock_guard lock(mutex_);
  if (faults_.size() < kMostFaults) faults_.push_back(text);
}

std::string Script::log() const {
  const std::lock_guard lock(mutex_);
  return lines_.substr(0, lines_.empty() ? 0 : lines_.size() - 1);
}

std::vector<std::string> Script::faults() const {
  const std::lock_guard lock(mutex_);
  return faults_;
}

void Script::reset() {
  {
    const std::lock_guard lock(functions().mutex);
    for (auto& [name, function] : functions().named) {
      function.calls.store(0);
      function.failures.store(0);
    }
  }
  const std::lock_guard lock(mutex_);
  lines_.clear();
  faults_.clear();
  log_on.store(true);
  rogue.store(false);
}

bool Script::waitCalls(const Function& function, long count, int timeout_ms) {
  ++waiters_;
  std::unique_lock lock(mutex_);
  const bool reached = counted_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                         [&] { return function.calls.load() >= count; });
  lock.unlock();
  --waiters_;
  return reached;
}

void Script::wakeWaiters() {
  // Sequentially consistent on both sides: a waiter not seen here sees the new count.
  if (waiters_.load() == 0) return;
  const std::lock_guard lock(mutex_);
  counted_.notify_all();
}

Script& script() {
  static auto* const instance = new Script;
  return *instance;
}

}  // namespace scripted
