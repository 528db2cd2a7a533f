// What the scripted library remembers and has been told: the log of calls, scripted failures,
// faults.
#pragma once

#include <sarnet/sarnet.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "handles.h"

namespace scripted {

// Functions that a program calls a few times; each call is a line of the log.
#define SCRIPTED_STATE_FUNCTIONS(X)                      \
  X(srn_init)                                            \
  X(srn_destroy)                                         \
  X(srn_log_enable)                                      \
  X(srn_set_audio_device)                                \
  X(srn_session_settings_new)                            \
  X(srn_session_settings_set_session_migration)          \
  X(srn_session_new_with_settings)                       \
  X(srn_session_connect_to_host)                         \
  X(srn_session_disconnect)                              \
  X(srn_session_delete)                                  \
  X(srn_session_get_connection)                          \
  X(srn_session_publish)                                 \
  X(srn_session_unpublish)                               \
  X(srn_session_subscribe)                               \
  X(srn_session_unsubscribe)                             \
  X(srn_publisher_settings_new)                          \
  X(srn_publisher_settings_delete)                       \
  X(srn_publisher_settings_set_name)                     \
  X(srn_publisher_settings_set_audio_track)              \
  X(srn_publisher_settings_set_video_track)              \
  X(srn_publisher_settings_set_stereo)                   \
  X(srn_publisher_settings_set_noise_suppression)        \
  X(srn_publisher_settings_set_echo_cancellation)        \
  X(srn_publisher_settings_set_disable_audio_processing) \
  X(srn_publisher_settings_set_opus_dtx)                 \
  X(srn_publisher_settings_set_video_capturer)           \
  X(srn_publisher_new_with_settings)                     \
  X(srn_publisher_set_publish_captions)                  \
  X(srn_publisher_get_publisher_id)                      \
  X(srn_publisher_delete)                                \
  X(srn_subscriber_new)                                  \
  X(srn_subscriber_set_subscribe_to_video)               \
  X(srn_subscriber_set_subscribe_to_audio)               \
  X(srn_subscriber_set_subscribe_to_captions)            \
  X(srn_subscriber_set_preferred_resolution)             \
  X(srn_subscriber_set_preferred_framerate)              \
  X(srn_subscriber_get_subscriber_id)                    \
  X(srn_subscriber_delete)                               \
  X(srn_stream_copy)                                     \
  X(srn_stream_delete)                                   \
  X(srn_stream_get_id)                                   \
  X(srn_stream_get_connection)                           \
  X(srn_connection_get_id)                               \
  X(srn_connection_get_data)                             \
  X(srn_connection_get_session_id)                       \
  X(srn_connection_get_creation_time)                    \
  X(srn_connection_delete)

// Functions that come with every frame or audio period.
#define SCRIPTED_MEDIA_FUNCTIONS(X)                \
  X(srn_video_frame_new_contiguous_memory_wrapper) \
  X(srn_video_frame_delete)                        \
  X(srn_video_frame_get_format)                    \
  X(srn_video_frame_get_width)                     \
  X(srn_video_frame_get_height)                    \
  X(srn_video_frame_get_buffer)                    \
  X(srn_video_frame_get_buffer_size)               \
  X(srn_video_frame_get_plane_binary_data)         \
  X(srn_video_frame_get_plane_stride)              \
  X(srn_video_frame_get_plane_height)              \
  X(srn_video_capturer_provide_frame)              \
  X(srn_audio_device_read_render_data)             \
  X(srn_audio_device_write_capture_data)

enum class Fn : size_t {
#define X(name) name,
  SCRIPTED_STATE_FUNCTIONS(X) SCRIPTED_MEDIA_FUNCTIONS(X)
#undef X
      count
};
inline constexpr size_t kFunctions = static_cast<size_t>(Fn::count);
inline constexpr size_t kFirstMediaFunction =
    static_cast<size_t>(Fn::srn_video_frame_new_contiguous_memory_wrapper);

std::optional<Fn> functionNamed(const char* name);
const char* nameOf(Fn function);

// How an argument is written in the log.
void print(std::ostream& out, const char* text);
void print(std::ostream& out, int64_t number);
inline void print(std::ostream& out, int32_t number) { print(out, int64_t{number}); }
inline void print(std::ostream& out, uint32_t number) { print(out, int64_t{number}); }
inline void print(std::ostream& out, size_t number) { print(out, static_cast<int64_t>(number)); }
void print(std::ostream& out, float number);
void print(std::ostream& out, const Handle* handle);
void print(std::ostream& out, const void* pointer);
void print(std::ostream& out, const srn_session_callbacks* table);
void print(std::ostream& out, const srn_publisher_callbacks* table);
void print(std::ostream& out, const srn_subscriber_callbacks* table);
void print(std::ostream& out, const srn_audio_device_callbacks* table);
void print(std::ostream& out, const srn_video_capturer_callbacks* table);

class Script {
 public:
  Script();
  // Writes the call down and counts it. Gives the scripted status when this call is to fail.
  template <class... Arguments>
  std::optional<srn_status> call(Fn function, const Arguments&... arguments) {
    note(function, arguments...);
    count(function);
    return failure(function);
  }

  // The parts of `call`, for functions whose effect must be in place when they count as called.
  template <class... Arguments>
  void note(Fn function, const Arguments&... arguments) {
    if (!isLogged(function)) return;
    std::ostringstream line;
    line << nameOf(function) << '(';
    printArguments(line, "", arguments...);
    line << ')';
    append(line.str());
  }
  void count(Fn function);
  std::optional<srn_status> failure(Fn function);

  // A text in place of the made-up one; kept for good, since programs may hold the pointer.
  void setText(Fn function, const char* text);
  const char* text(Fn function) const;

  void slot(std::string_view name, int result);
  void fault(const std::string& text);

  void reset();
  void fail(Fn function, srn_status status, int times);
  long calls(Fn function) const { return counts_[static_cast<size_t>(function)].load(); }
  bool waitCalls(Fn function, long count, int timeout_ms);
  std::string log() const;
  std::string slots() const;
  std::string faultTexts() const;
  long faults() const;

  std::atomic<bool> log_on{true};
  std::atomic<bool> log_media{false};
  std::atomic<bool> rogue{false};

 private:
  struct Failure {
    srn_status status = 0;
    int times = 0;
  };

  static void printArguments(std::ostream&, const char*) {}
  template <class Value, class... Rest>
  static void printArguments(std::ostream& out, const char* separator, const char* name,
                             const Value& value, const Rest&... rest) {
    out << separator << name << '=';
    print(out, value);
    printArguments(out, ", ", rest...);
  }
  bool isLogged(Fn function) const {
    return log_on.load(std::memory_order_relaxed) &&
           (static_cast<size_t>(function) < kFirstMediaFunction ||
            log_media.load(std::memory_order_relaxed));
  }
  void append(std::string line);

  std::array<std::atomic<long>, kFunctions> counts_{};
  std::array<std::atomic<bool>, kFunctions> may_fail_{};
  std::atomic<int> waiters_{0};
  std::condition_variable counted_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::FILE* file_ = nullptr;
  std::vector<std::string> slots_;
  std::vector<std::string> faults_;
  std::array<Failure, kFunctions> failures_{};
  std::array<const char*, kFunctions> texts_{};
  std::deque<std::string> kept_texts_;
};

// Never destroyed: library threads may outlive the process's static objects.
Script& script();

}  // namespace scripted
