// A thread with a queue of tasks that may be delayed. The scripted library has one for events, one
// for the audio device and one for each kind of media.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace scripted {

// Tasks posted anywhere and not yet done.
class Backlog {
 public:
  void add();
  void remove(long tasks);
  bool waitEmpty(std::chrono::steady_clock::time_point deadline);

 private:
  std::mutex mutex_;
  std::condition_variable empty_;
  long tasks_ = 0;
};

// The thread starts with the first task, and again after a stop.
class Strand {
 public:
  explicit Strand(Backlog& backlog) : backlog_(backlog) {}

  void post(std::chrono::milliseconds delay, std::function<void()> task);
  void post(std::function<void()> task) { post(std::chrono::milliseconds{0}, std::move(task)); }
  // Drops what has not begun and waits for what has, but on the strand's own thread.
  void drop();
  // The same, and joins. Not on the strand's own thread.
  void stop();
  // Stops after all tasks that are due.
  void finish();
  bool isCurrent() const;

 private:
  void run();
  void dropLocked();

  Backlog& backlog_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> tasks_;
  bool busy_ = false;
  bool stopping_ = false;
  std::thread thread_;  // joined by stop
};

struct Strands {
  Backlog backlog;
  Strand events{backlog};
  Strand device{backlog};
  Strand audio{backlog};
  Strand frames{backlog};
  Strand captions{backlog};
};

// Never destroyed; without srn_destroy the threads end with the process.
Strands& strands();

}  // namespace scripted
