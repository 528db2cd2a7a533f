#pragma once

#include <glib.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>

#include "common/mutex.h"
#include "common/thread_role.h"
#include "relay/signalling/glib_handles.h"

namespace sarnet::relay {

// The loop that runs all of one engine: signalling, negotiation, and the media that are received.
// Its thread is the one that calls run(), which the library's thread keeper starts and joins.
class MainLoop {
 public:
  MainLoop();
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  // Any thread. Runs `task` on the loop's thread, in the order posted. Once the loop has ended,
  // tasks are dropped unrun; a task that never ran is destroyed on the thread that drops it.
  void post(std::function<void()> task);

  // Makes this loop the thread's default context and runs until quit(). Once.
  void run();
  // Any thread. run() returns after the task that is under way.
  void quit();

  // Counts what is under way outside and returns to this loop, from any thread; it may outlive the
  // loop. At its end the loop waits for that, a second at most: what returns later is never freed.
  const std::shared_ptr<std::atomic<int>>& under_way() const { return under_way_; }

  // The thread that runs the loop, for checks in code that belongs to it.
  const common::ThreadRole& thread() const { return thread_; }

  // For sources that are not of this class; attach and remove them on the loop's thread.
  GMainContext* context() const { return context_.get(); }

  // Calls `action` after `delay`, once or repeatedly, until the handle is destroyed. The loop's
  // thread alone. The action may destroy the handle.
  class Timer {
   public:
    Timer() = default;
    Timer(const MainLoop& loop, std::chrono::milliseconds delay, std::function<void()> action,
          bool repeat = false);
    explicit operator bool() const { return source_ != nullptr; }
    void stop() { source_.reset(); }

   private:
    SourceHandle source_;
  };

 private:
  struct ContextDeleter {
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
  };
  struct WakeSource;
  void run_posted();
  void run_last_rounds();

  std::unique_ptr<GMainContext, ContextDeleter> context_;
  SourceHandle wake_;
  std::atomic<bool> quitting_{false};
  const std::shared_ptr<std::atomic<int>> under_way_ = std::make_shared<std::atomic<int>>(0);
  common::ThreadRole thread_{"a session's main loop"};

  common::Mutex mutex_;
  std::deque<std::function<void()>> tasks_ GUARDED_BY(mutex_);
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace sarnet::relay
