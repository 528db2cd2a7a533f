#pragma once

#include <log4cxx/logger.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "common/mutex.h"
#include "common/thread_role.h"
#include "runtime/event_queue_result.h"

/// One worker thread that runs tasks in the order posted.
///
/// Any thread may post, wait, flush and ask. `start` and `stop` belong to the owner, one at a time,
/// and never to a task. No lock is held while a task runs, so a task may post to its own queue.
/// Every task that was accepted runs exactly once, at the latest while `stop` waits. The size is
/// unbounded.
class EventQueue {
 public:
  explicit EventQueue(const std::string& name);
  ~EventQueue();

  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  /// Starts the worker; logs a warning if it runs already. Throws std::system_error, and stays
  /// stopped, when no thread can be made.
  void start();

  /// Refuses new tasks, runs those that are queued and joins the worker. Blocks for all of that.
  void stop();

  bool isRunning() const;

  /// Queues the task and returns true; false, with the callable left as it was, when stopped. Never
  /// waits for the worker. What the task throws is logged.
  bool post(std::function<void()>&& task);

  /// Blocks until the task has run. On the worker itself the task runs at once, ahead of what is
  /// queued, and its exceptions reach the caller; elsewhere they are dropped silently. Returns at
  /// once when stopped. The caller must hold no lock that the task, or one queued before it, needs.
  void postAndWait(std::function<void()>&& task);

  /// The same, returning the task's value, or T's default if it threw or did not run.
  template <EventQueueResult T>
  T postAndWait(std::function<T()>&& task) {
    if (isOnWorkerThread()) return task();
    T result{};
    postAndWait([&result, task = std::move(task)] { result = task(); });
    return result;
  }

  /// Blocks until everything posted before has run. Does nothing on the worker.
  void flush();

  bool isOnWorkerThread() const;

  /// For functions that belong to the worker: in builds that check threads, ends the program when
  /// another thread calls while the worker lives.
  void requireWorkerThread() const { worker_role_.require(); }

 private:
  void runWorker();
  void processLoop();
  void abandon();

  static const log4cxx::LoggerPtr& logger_;

  const std::string name_;
  std::thread worker_;
  std::atomic<std::thread::id> worker_thread_id_{};
  common::ThreadRole worker_role_{"EventQueue worker"};
  common::Mutex mutex_;  ///< guards queue_, and running_ in its way to false
  std::deque<std::function<void()>> queue_ GUARDED_BY(mutex_);
  std::condition_variable cv_;
  std::atomic<bool> running_{false};
};
