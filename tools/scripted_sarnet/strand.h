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

// The thread starts with the first task, and again after a stop.
class Strand {
 public:
  using Milliseconds = std::chrono::milliseconds;

  void post(std::function<void()> task, Milliseconds delay = Milliseconds{0});
  // Drops tasks not yet begun and waits for the running one. Not on the strand's own thread.
  void drop();
  // The same, and joins.
  void stop();
  // Whether it is idle by then.
  bool waitIdle(std::chrono::steady_clock::time_point deadline);
  bool isCurrent() const;

 private:
  void run();

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> tasks_;
  bool busy_ = false;
  bool stopping_ = false;
  std::thread thread_;  // joined by stop
};

struct Strands {
  Strand events;
  Strand device;
  Strand audio;
  Strand frames;
  Strand captions;
};

// Never destroyed; without srn_destroy the threads end with the process.
Strands& strands();

}  // namespace scripted
