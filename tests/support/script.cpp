#include "script.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace scripted {
namespace {

// A runaway loop in a test must not fill the memory.
constexpr size_t kMaxLines = 500'000;

constexpr std::array<const char*, kFunctions> kNames = {
#define X(name) #name,
    SCRIPTED_STATE_FUNCTIONS(X) SCRIPTED_MEDIA_FUNCTIONS(X)
#undef X
};

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    if (!text.empty()) text += '\n';
    text += line;
  }
  return text;
}

struct NamedSlot {
  const char* name;
  bool filled;
};

void printSlots(std::ostream& out, std::initializer_list<NamedSlot> slots) {
  out << '[';
  const char* separator = "";
  for (const NamedSlot& slot : slots) {
    if (!slot.filled) continue;
    out << separator << slot.name;
    separator = " ";
  }
  out << ']';
}

}  // namespace

std::optional<Fn> functionNamed(const char* name) {
  if (name == nullptr) return std::nullopt;
  const auto found = std::find_if(kNames.begin(), kNames.end(), [name](const char* each) {
    return std::string_view(each) == name;
  });
  if (found == kNames.end()) return std::nullopt;
  return static_cast<Fn>(found - kNames.begin());
}

const char* nameOf(Fn function) { return kNames[static_cast<size_t>(function)]; }

void print(std::ostream& out, const char* text) {
  if (text == nullptr) {
    out << "null";
    return;
  }
  out << '"';
  for (const char* at = text; *at != '\0'; ++at) {
    if (*at == '\n') {
      out << "\\n";
    } else {
      out << *at;
    }
  }
  out << '"';
}

void print(std::ostream& out, int64_t number) { out << number; }
void print(std::ostream& out, float number) { out << number; }

void print(std::ostream& out, const Handle* handle) {
  if (handle == nullptr) {
    out << "null";
  } else {
    out << handle->number;
  }
}

void print(std::ostream& out, const void* pointer) { out << (pointer == nullptr ? "null" : "set"); }

#define SLOT(name) \
  NamedSlot { #name, table->name != nullptr }
void print(std::ostream& out, const srn_session_callbacks* table) {
  if (table == nullptr) return print(out, static_cast<const void*>(nullptr));
  printSlots(out, {SLOT(on_connected),
                   SLOT(on_disconnected),
                   SLOT(on_connection_created),
                   SLOT(on_connection_dropped),
                   SLOT(on_stream_received),
                   SLOT(on_stream_dropped),
                   SLOT(on_stream_has_audio_changed),
                   SLOT(on_stream_has_video_changed),
                   SLOT(on_stream_has_captions_changed),
                   SLOT(on_stream_video_dimensions_changed),
                   SLOT(on_stream_video_type_changed),
                   SLOT(on_signal_received),
                   SLOT(on_reconnection_started),
                   SLOT(on_reconnected),
                   SLOT(on_archive_started),
                   SLOT(on_archive_stopped),
                   SLOT(on_error),
                   SLOT(on_mute_forced),
                   SLOT(user_data),
                   SLOT(reserved)});
}

void print(std::ostream& out, const srn_publisher_callbacks* table) {
  if (table == nullptr) return print(out, static_cast<const void*>(nullptr));
  printSlots(out, {SLOT(on_stream_created), SLOT(on_stream_destroyed), SLOT(on_render_frame),
                   SLOT(on_audio_level_updated), SLOT(on_publisher_mute_forced),
                   SLOT(on_audio_stats), SLOT(on_video_stats), SLOT(on_error),
                   SLOT(on_video_disabled), SLOT(on_video_enabled), SLOT(on_video_disable_warning),
                   SLOT(on_video_disable_warning_lifted), SLOT(user_data), SLOT(reserved)});
}

void print(std::ostream& out, const srn_subscriber_callbacks* table) {
  if (table == nullptr) return print(out, static_cast<const void*>(nullptr));
  printSlots(
      out, {SLOT(on_connected), SLOT(on_disconnected), SLOT(on_reconnected), SLOT(on_render_frame),
            SLOT(on_video_disabled), SLOT(on_video_enabled), SLOT(on_audio_disabled),
            SLOT(on_audio_enabled), SLOT(on_video_data_received), SLOT(on_video_disable_warning),
            SLOT(on_caption_text), SLOT(on_video_disable_warning_lifted), SLOT(on_audio_stats),
            SLOT(on_video_stats), SLOT(on_audio_level_updated), SLOT(on_error), SLOT(on_audio_data),
            SLOT(user_data), SLOT(reserved)});
}

void print(std::ostream& out, const srn_audio_device_callbacks* table) {
  if (table == nullptr) return print(out, static_cast<const void*>(nullptr));
  printSlots(out, {SLOT(init),
                   SLOT(destroy),
                   SLOT(init_capturer),
                   SLOT(destroy_capturer),
                   SLOT(start_capturer),
                   SLOT(stop_capturer),
                   SLOT(is_capturer_initialized),
                   SLOT(is_capturer_started),
                   SLOT(get_estimated_capture_delay),
                   SLOT(get_capture_settings),
                   SLOT(init_renderer),
                   SLOT(destroy_renderer),
                   SLOT(start_renderer),
                   SLOT(stop_renderer),
                   SLOT(is_renderer_initialized),
                   SLOT(is_renderer_started),
                   SLOT(get_estimated_render_delay),
                   SLOT(get_render_settings),
                   SLOT(user_data),
                   SLOT(reserved)});
}

void print(std::ostream& out, const srn_video_capturer_callbacks* table) {
  if (table == nullptr) return print(out, static_cast<const void*>(nullptr));
  printSlots(out, {SLOT(init), SLOT(destroy), SLOT(start), SLOT(stop), SLOT(get_capture_settings),
                   SLOT(user_data), SLOT(reserved)});
}
#undef SLOT

void Script::append(std::string line) {
  const std::lock_guard lock(mutex_);
  if (file_ != nullptr) {
    std::fprintf(file_, "%s\n", line.c_str());
    std::fflush(file_);
  }
  if (lines_.size() < kMaxLines) lines_.push_back(std::move(line));
}

Script::Script() {
  const char* const path = std::getenv("SCRIPTED_CALLS_FILE");
  if (path != nullptr) file_ = std::fopen(path, "a");
}

void Script::count(Fn function) {
  counts_[static_cast<size_t>(function)].fetch_add(1);
  // Sequentially consistent on both sides: a waiter that is not seen here sees the new count.
  if (waiters_.load() != 0) {
    const std::lock_guard lock(mutex_);
    counted_.notify_all();
  }
}

std::optional<srn_status> Script::failure(Fn function) {
  const auto index = static_cast<size_t>(function);
  if (!may_fail_[index].load(std::memory_order_acquire)) return std::nullopt;
  const std::lock_guard lock(mutex_);
  Failure& failure = failures_[index];
  if (failure.times == 0) return std::nullopt;
  if (failure.times > 0) --failure.times;
  return failure.status;
}

void Script::setText(Fn function, const char* text) {
  const std::lock_guard lock(mutex_);
  const char*& current = texts_[static_cast<size_t>(function)];
  current = text == nullptr ? nullptr : kept_texts_.emplace_back(text).c_str();
}

const char* Script::text(Fn function) const {
  const std::lock_guard lock(mutex_);
  return texts_[static_cast<size_t>(function)];
}

void Script::slot(std::string_view name, int result) {
  const std::lock_guard lock(mutex_);
  if (slots_.size() < kMaxLines) {
    slots_.push_back(std::string(name) + '=' + std::to_string(result));
  }
}

void Script::fault(const std::string& text) {
  const std::lock_guard lock(mutex_);
  if (faults_.size() < kMaxLines) faults_.push_back(text);
}

void Script::reset() {
  const std::lock_guard lock(mutex_);
  for (auto& count : counts_) count.store(0);
  for (auto& flag : may_fail_) flag.store(false);
  failures_.fill({});
  texts_.fill(nullptr);
  lines_.clear();
  slots_.clear();
  faults_.clear();
  log_on.store(true);
  log_media.store(false);
  rogue.store(false);
}

void Script::fail(Fn function, srn_status status, int times) {
  const std::lock_guard lock(mutex_);
  const auto index = static_cast<size_t>(function);
  failures_[index] = {.status = status, .times = times};
  may_fail_[index].store(times != 0, std::memory_order_release);
}

bool Script::waitCalls(Fn function, long count, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  waiters_.fetch_add(1);
  std::unique_lock lock(mutex_);
  const bool reached =
      counted_.wait_until(lock, deadline, [&] { return calls(function) >= count; });
  lock.unlock();
  waiters_.fetch_sub(1);
  return reached;
}

std::string Script::log() const {
  const std::lock_guard lock(mutex_);
  return joined(lines_);
}

std::string Script::slots() const {
  const std::lock_guard lock(mutex_);
  return joined(slots_);
}

std::string Script::faultTexts() const {
  const std::lock_guard lock(mutex_);
  return joined(faults_);
}

long Script::faults() const {
  const std::lock_guard lock(mutex_);
  return static_cast<long>(faults_.size());
}

Script& script() {
  static Script* const instance = new Script;
  return *instance;
}

}  // namespace scripted
