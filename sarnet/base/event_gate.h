#pragma once

#include <chrono>
#include <condition_variable>
#include <thread>

#include "common/mutex.h"

namespace sarnet {

// Guards the event callbacks of one handle. After close() no callback of the handle starts, and the
// one that was under way on another thread has ended. Any thread; no lock is held while the
// callback runs.
class EventGate {
 public:
  // A callback may run while this exists and is true. The destructor leaves the gate, also when the
  // thread is unwound.
  class Pass {
   public:
    explicit Pass(EventGate& gate) : gate_(gate), entered_(gate.enter()) {}
    ~Pass() {
      if (entered_) gate_.leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    explicit operator bool() const { return entered_; }

   private:
    EventGate& gate_;
    const bool entered_;
  };

  // How long close() waits for a callback that does not return. The callback then continues on data
  // that the library keeps.
  static constexpr std::chrono::seconds kPatience{10};

  // May be called inside a callback of the handle: does not wait for that one. False when the wait
  // timed out.
  bool close();
  bool closed() const;

 private:
  bool enter();
  void leave();

  mutable common::Mutex mutex_;
  std::condition_variable left_;
  bool closed_ GUARDED_BY(mutex_) = false;
  int inside_ GUARDED_BY(mutex_) = 0;  // nested entries of one thread
  std::thread::id thread_ GUARDED_BY(mutex_);
};

}  // namespace sarnet
