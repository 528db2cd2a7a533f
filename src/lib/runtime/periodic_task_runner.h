#pragma once

#include <log4cxx/logger.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "common/mutex.h"
#include "runtime/clock.h"

/// One thread that calls a task once a period until stopped, the first time at once.
///
/// Each call is scheduled one period after the scheduled instant of the call before, less the time
/// that the call took: late wake-ups do not add up, and the pace runs ahead by the task's own
/// duration. A call that takes a period or more restarts the schedule and is followed by the next
/// one at once. Faults in the timing are logged at Warn.
///
/// An exception from the task ends the loop after one call of `on_error`; `isRunning` stays true
/// until `stop`. A derived class that overrides `sleepUntil` calls `stop` in its own destructor.
class PeriodicTaskRunner {
 public:
  using Task = std::function<void()>;
  using ErrorCallback = std::function<void(const std::string&)>;

  /// The name becomes part of the logger's name.
  explicit PeriodicTaskRunner(const std::string& name);
  virtual ~PeriodicTaskRunner();

  PeriodicTaskRunner(const PeriodicTaskRunner&) = delete;
  PeriodicTaskRunner& operator=(const PeriodicTaskRunner&) = delete;

  bool isRunning() const;

  /// Starts the loop with copies of its arguments; does not wait for the first call. False while it
  /// runs, and when no thread can be made. Any thread but the loop's own.
  bool run(const Task& task, Nanos period, const ErrorCallback& on_error);

  /// Ends the loop and joins its thread: blocks for the current call or sleep. False when not
  /// running. Any thread but the loop's own.
  bool stop();

 protected:
  /// All sleeping of the loop goes through here, on the loop's thread.
  virtual void sleepUntil(TimePoint t);

 private:
  void runLoop(const Task& task, Nanos period, const ErrorCallback& on_error);
  void loop(const Task& task, Nanos period);

  const std::string name_;
  const log4cxx::LoggerPtr logger_;
  common::Mutex thread_mutex_;  ///< guards thread_; held while a loop is joined, never by the loop
  std::thread thread_ GUARDED_BY(thread_mutex_);
  std::atomic<bool> is_running_{false};
};
