#include "runtime/periodic_task_runner.h"

#include <chrono>

#include "common/guard.h"

namespace {

std::int64_t wholeMillis(Nanos duration) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

}  // namespace

PeriodicTaskRunner::PeriodicTaskRunner(const std::string& name)
    : name_(name), logger_(log4cxx::Logger::getLogger("PeriodicTaskRunner." + name_)) {
  LOG4CXX_TRACE(logger_, "PeriodicTaskRunner created");
}

PeriodicTaskRunner::~PeriodicTaskRunner() {
  LOG4CXX_TRACE(logger_, "PeriodicTaskRunner destroyed");
  if (isRunning()) stop();
}

bool PeriodicTaskRunner::isRunning() const { return is_running_.load(); }

bool PeriodicTaskRunner::run(const Task& task, Nanos period, const ErrorCallback& on_error) {
  const common::LockGuard lock(thread_mutex_);
  bool expected = false;
  if (!is_running_.compare_exchange_strong(expected, true)) {
    LOG4CXX_ERROR(logger_, "Illegal state. Task must not be running.");
    return false;
  }
  try {
    thread_ = std::thread([this, task, period, on_error] { runLoop(task, period, on_error); });
  } catch (const std::exception& e) {
    is_running_.store(false);
    LOG4CXX_ERROR(logger_, "Couldn't start the loop: " << e.what());
    return false;
  }
  return true;
}

bool PeriodicTaskRunner::stop() {
  LOG4CXX_TRACE(logger_, "Trying to stop a task.");
  if (!isRunning()) return false;
  // The flag and the join must be atomic for `run`, which would otherwise revive the old loop.
  const common::LockGuard lock(thread_mutex_);
  bool expected = true;
  if (!is_running_.compare_exchange_strong(expected, false)) return false;
  if (thread_.joinable()) thread_.join();
  return true;
}

void PeriodicTaskRunner::sleepUntil(TimePoint t) { Clock::sleepUntil(t); }

void PeriodicTaskRunner::runLoop(const Task& task, Nanos period, const ErrorCallback& on_error) {
  std::string message;
  const bool ended_well = common::guard(
      [&] { loop(task, period); },
      [&](const char* text) {
        message = text != nullptr ? std::string("Exception occurred running loop: ") + text
                                  : "Unknown error occurred running loop.";
      });
  if (ended_well) return;
  LOG4CXX_ERROR(logger_, message);
  if (on_error) on_error(message);
}

void PeriodicTaskRunner::loop(const Task& task, Nanos period) {
  Clock::sharpenCurrentThread();
  TimePoint next = Clock::now();
  while (is_running_.load()) {
    const TimePoint now = Clock::now();
    if (now < next) {
      sleepUntil(next);
      continue;
    }
    const Nanos lateness = now - next;
    if (lateness > period) {
      LOG4CXX_WARN(logger_, "Too long since task was last called (ms): " << wholeMillis(lateness));
    }
    task();
    const Nanos elapsed = Clock::now() - now;
    if (elapsed >= period) {
      LOG4CXX_WARN(logger_, "Task took too long to complete: ms: " << wholeMillis(elapsed)
                                                                   << ", period (ms) is: "
                                                                   << wholeMillis(period));
      next = now;
      continue;
    }
    next = now + period - elapsed - lateness;
    sleepUntil(next);
  }
}
