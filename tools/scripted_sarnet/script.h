// The scripted library's log of its calls, and the failures scripted for them.
#pragma once

#include <sarnet/sarnet.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "handles.h"

namespace scripted {

// The slots of an audio device in the order of its table, which consists of pointers only.
extern const char* const kDeviceSlots;

// How an argument is written in the log.
void print(std::ostream& out, const char* text);
void print(std::ostream& out, const Handle* handle);
void print(std::ostream& out, const void* pointer);
void print(std::ostream& out, const srn_session_callbacks* table);
void print(std::ostream& out, const srn_publisher_callbacks* table);
void print(std::ostream& out, const srn_subscriber_callbacks* table);
void print(std::ostream& out, const srn_audio_device_callbacks* table);
void print(std::ostream& out, const srn_video_capturer_callbacks* table);
template <class Number>
requires std::is_arithmetic_v<Number> || std::is_enum_v<Number>
void print(std::ostream& out, Number number) { out << number; }

// One function of the contract.
class Function {
 public:
  explicit Function(const std::string& function_name);

  // Logs the call and counts it. Returns the scripted status when this call is to fail.
  template <class... Arguments>
  std::optional<srn_status> call(const char* names, const Arguments&... arguments);
  // The two parts of it, for functions whose effect must precede the count.
  std::optional<srn_status> failure();
  void count();

  template <class T>
  bool valid(const T* handle) const {
    return isValid(handle, T::kKind, name.c_str());
  }
  template <class T>
  bool retire(T* handle) const {
    return scripted::retire(handle, T::kKind, name.c_str());
  }

  static constexpr size_t kTimes = 4096;
  const std::string name;
  std::atomic<long> calls{0};
  std::atomic<int> failures{0};  // to come; -1: all
  std::atomic<srn_status> status{SRN_SUCCESS};
  // By the number of the call, mod kTimes; empty for functions that move no media.
  std::vector<std::atomic<int64_t>> times;
};

// The function of that name; null when the contract has none.
Function* functionNamed(const char* name);

class Script {
 public:
  Script();
  void append(std::string line);
  void fault(const std::string& text);
  std::string log() const;
  std::vector<std::string> faults() const;
  void reset();
  bool waitCalls(const Function& function, long count, int timeout_ms);
  void wakeWaiters();

  std::atomic<bool> log_on{true};
  std::atomic<bool> rogue{false};

 private:
  std::atomic<int> waiters_{0};
  std::condition_variable counted_;
  mutable std::mutex mutex_;
  std::string lines_;
  std::vector<std::string> faults_;
  std::FILE* file_ = nullptr;
};

// Never destroyed: library threads may outlive the process's static objects.
Script& script();

template <class... Arguments>
std::optional<srn_status> Function::call(const char* names, const Arguments&... arguments) {
  if (script().log_on.load(std::memory_order_relaxed)) {
    std::ostringstream line;
    std::istringstream words(names);  // "first, second"
    line << name << '(';
    const char* separator = "";
    [[maybe_unused]] const auto write = [&](const auto& argument) {
      std::string word;
      words >> word;
      if (word.ends_with(',')) word.pop_back();
      line << std::exchange(separator, ", ") << word << '=';
      print(line, argument);
    };
    (write(arguments), ...);
    line << ')';
    script().append(line.str());
  }
  count();
  return failure();
}

}  // namespace scripted

// Begins each function of the contract: `function` is its record, `failure` its scripted failure.
#define SCRIPTED_FUNCTION static scripted::Function& function = *scripted::functionNamed(__func__)
#define SCRIPTED_CALL(...) \
  SCRIPTED_FUNCTION;       \
  const auto failure = function.call(#__VA_ARGS__ __VA_OPT__(, ) __VA_ARGS__)
// The same for calls made for every frame or audio period: counted, not logged.
#define SCRIPTED_MEDIA_CALL() \
  SCRIPTED_FUNCTION;          \
  function.count();           \
  const auto failure = function.failure()
