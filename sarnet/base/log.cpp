#include "base/log.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "base/printable_text.h"

namespace sarnet {
namespace {

constexpr std::size_t kMaxLine = 8192;

std::atomic<int> current_level{static_cast<int>(LogLevel::kError)};

const char* name_of(LogLevel level) {
  switch (level) {
    case LogLevel::kError:
      return "ERROR";
    case LogLevel::kWarn:
      return "WARN";
    case LogLevel::kInfo:
      return "INFO";
    default:
      return "DEBUG";
  }
}

}  // namespace

void set_log_level(int level) {
  current_level.store(std::clamp(level, 0, static_cast<int>(LogLevel::kDebug)),
                      std::memory_order_relaxed);
}

bool log_enabled(LogLevel level) {
  return static_cast<int>(level) <= current_level.load(std::memory_order_relaxed);
}

void write_log(LogLevel level, const std::string& text) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[80];
  const int length =
      std::snprintf(stamp, sizeof stamp, "%02d:%02d:%02d.%03d sarnet %s ", local.tm_hour,
                    local.tm_min, local.tm_sec, static_cast<int>(millis), name_of(level));
  std::string line(stamp, static_cast<std::size_t>(std::max(length, 0)));
  // Text from outside must not break the line.
  line += printable_text(text, kMaxLine);
  line += '\n';
  // Nothing can be done about a closed standard error, so the result is ignored.
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace sarnet
