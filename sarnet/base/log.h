#pragma once

#include <sstream>
#include <string>

namespace sarnet {

// The library's own log, lines on standard error. Any thread. Values are those of srn_log_level.
enum class LogLevel { kDisabled = 0, kError = 1, kWarn = 2, kInfo = 3, kDebug = 4 };

// Errors only, until a program asks for more. Values outside the enumeration are clamped.
void set_log_level(int level);
bool log_enabled(LogLevel level);
// Writes one line, as one write, so that lines of several threads do not mix; see printable_text.h.
void write_log(LogLevel level, const std::string& text);

}  // namespace sarnet

// Evaluates the stream only when the level is enabled: SARNET_LOG(kWarn, "lost " << n).
#define SARNET_LOG(level, stream)                                            \
  do {                                                                       \
    if (::sarnet::log_enabled(::sarnet::LogLevel::level)) {                  \
      std::ostringstream sarnet_log_line;                                    \
      sarnet_log_line << stream; /* NOLINT(bugprone-macro-parentheses) */    \
      ::sarnet::write_log(::sarnet::LogLevel::level, sarnet_log_line.str()); \
    }                                                                        \
  } while (false)
