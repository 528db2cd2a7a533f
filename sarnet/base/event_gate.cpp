#include "base/event_gate.h"

#include "base/log.h"

namespace sarnet {

bool EventGate::enter() {
  common::UniqueLock lock(mutex_);
  const auto me = std::this_thread::get_id();
  // Two threads contend here only when a handle moves from one session to another.
  left_.wait(lock.native(),
             [&]() REQUIRES(mutex_) { return closed_ || inside_ == 0 || thread_ == me; });
  if (closed_) return false;
  ++inside_;
  thread_ = me;
  return true;
}

void EventGate::leave() {
  const common::LockGuard lock(mutex_);
  --inside_;
  left_.notify_all();
}

bool EventGate::close() {
  common::UniqueLock lock(mutex_);
  closed_ = true;
  left_.notify_all();
  const auto me = std::this_thread::get_id();
  const bool quiet = left_.wait_for(
      lock.native(), kPatience, [&]() REQUIRES(mutex_) { return inside_ == 0 || thread_ == me; });
  if (!quiet) SARNET_LOG(kError, "A handle was deleted while its callback did not return");
  return quiet;
}

bool EventGate::closed() const {
  const common::LockGuard lock(mutex_);
  return closed_;
}

}  // namespace sarnet
