#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <thread>

#include "common/mutex.h"

namespace sarnet {

// Starts and joins every thread of the library. A thread ends by itself once its object tells it
// to; it is joined here, by the next start() or by join_all(), so that nothing else ever waits for
// one. The function's captures keep what the thread uses alive.
class ThreadKeeper {
 public:
  static ThreadKeeper& instance();

  // Runs `body` on a new thread of that name (15 characters). An exception is logged and ends the
  // thread. Throws std::system_error when no thread can be made.
  std::thread::id start(const char* name, std::function<void()> body);

  // Waits until all threads have ended, and joins them. False when some are left at the deadline:
  // they are logged and kept.
  bool join_all(std::chrono::milliseconds timeout);

  // Whether the caller is one of the library's threads.
  bool on_own_thread() const;

 private:
  struct Entry {
    std::thread thread;
    bool ended = false;
  };
  ThreadKeeper() = default;
  void join_ended();

  mutable common::Mutex mutex_;
  std::condition_variable ended_;
  std::list<Entry> threads_ GUARDED_BY(mutex_);
};

}  // namespace sarnet
