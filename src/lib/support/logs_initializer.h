#pragma once

/// Sends the system's log to standard output, from level Warn on until a session says otherwise.
class LogsInitializer {
 public:
  /// Does its work at the first call in the process; later and concurrent calls are cheap. Any
  /// thread.
  static void init();
};
