#include "tavrin_video_module/exit_gate.h"

bool ExitGate::waitUntilEmpty(std::chrono::milliseconds timeout) {
  common::UniqueLock lock(mutex_);
  return emptied_.wait_for(lock.native(), timeout, [this] { return inside_.load() == 0; });
}

bool ExitGate::enterPython() {
  // Counted before the test, so that a thread that closes and then counts sees everyone inside.
  inside_.fetch_add(1);
  if (closing_.load()) {
    leave();
    return false;
  }
  return true;
}

void ExitGate::leave() {
  // Only process exit waits, so at all other times leaving is one atomic operation.
  if (inside_.fetch_sub(1) == 1 && closing_.load()) {
    const common::LockGuard lock(mutex_);
    emptied_.notify_all();
  }
}
