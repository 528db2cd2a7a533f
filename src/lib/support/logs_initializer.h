#pragma once

/// Sends the module's log to standard output, from level Warn up until a session sets another.
class LogsInitializer {
 public:
  /// Acts at the first call in the process; later and concurrent calls are cheap. Any thread.
  static void init();
};
