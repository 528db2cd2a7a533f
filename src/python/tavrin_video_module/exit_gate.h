#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <utility>

#include "common/mutex.h"

// Keeps native threads out of the interpreter's finalisation: counts the threads in Python (or
// entering it) and in the controller, and closes the entry to Python before finalisation begins.
// One per process, never destroyed; any thread, with or without the interpreter lock.
class ExitGate {
 public:
  // Counts a thread as inside (on its way into Python, or in the controller) until it is destroyed.
  // Its destructor needs no lock of Python's.
  class Pass {
   public:
    // Into the controller: always admitted.
    explicit Pass(ExitGate& gate) : gate_(&gate) { gate.inside_.fetch_add(1); }
    // Into Python: only if `isOpen`.
    static Pass toPython(ExitGate& gate) { return Pass(gate.enterPython() ? &gate : nullptr); }
    ~Pass() { end(); }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    bool isOpen() const { return gate_ != nullptr; }
    void end() {
      if (gate_ != nullptr) std::exchange(gate_, nullptr)->leave();
    }

   private:
    explicit Pass(ExitGate* gate) : gate_(gate) {}

    ExitGate* gate_;
  };

  // From now on no thread is admitted to Python, for good.
  void close() { closing_.store(true); }

  // Waits until no thread is inside; false on time-out. Without the interpreter lock, since those
  // inside need it to get out.
  bool waitUntilEmpty(std::chrono::milliseconds timeout);

 private:
  bool enterPython();
  void leave();

  std::atomic<bool> closing_{false};
  std::atomic<int64_t> inside_{0};
  common::Mutex mutex_;  // guards nothing but the sleep of the waiting thread
  std::condition_variable emptied_;
};
