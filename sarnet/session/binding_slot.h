#pragma once

#include <memory>
#include <utility>

#include "common/mutex.h"

namespace sarnet {

// Holds the one binding that a publisher or a subscriber has to a session at a time. Any thread; no
// lock is held while a binding begins or ends. A Binding has session(), begin() and end(), which
// calls forget().
template <class Binding>
class BindingSlot {
 public:
  // Takes the binding in and begins it; false when there is one already, or after close(). An
  // exception of begin() reaches the caller, with the binding ended.
  bool bind(const std::shared_ptr<Binding>& binding) {
    {
      const common::LockGuard lock(mutex_);
      if (closed_ || binding_) return false;
      binding_ = binding;
    }
    try {
      binding->begin();
    } catch (...) {
      binding->end();
      throw;
    }
    return true;
  }

  // Ends the binding to that session; false when there is none.
  bool unbind(const void* session) {
    std::shared_ptr<Binding> binding;
    {
      const common::LockGuard lock(mutex_);
      // The program may still end, once, a binding that the peer has ended.
      if (std::exchange(ended_session_, nullptr) == session && !binding_) return true;
      if (!binding_ || binding_->session() != session) return false;
      binding = binding_;
    }
    binding->end();
    const common::LockGuard lock(mutex_);
    ended_session_ = nullptr;
    return true;
  }

  // Ends the binding, and refuses any other.
  void close() {
    std::shared_ptr<Binding> binding;
    {
      const common::LockGuard lock(mutex_);
      closed_ = true;
      binding = binding_;
    }
    if (binding) binding->end();
  }

  // Null when there is none.
  std::shared_ptr<Binding> current() const {
    const common::LockGuard lock(mutex_);
    return binding_;
  }
  bool holds(const Binding* binding) const {
    const common::LockGuard lock(mutex_);
    return binding_.get() == binding;
  }

  // Called by the binding's end().
  void forget(const Binding* binding) {
    std::shared_ptr<Binding> gone;  // released after the lock
    const common::LockGuard lock(mutex_);
    if (binding_.get() != binding) return;
    gone.swap(binding_);
    ended_session_ = gone->session();
  }

 private:
  mutable common::Mutex mutex_;
  std::shared_ptr<Binding> binding_ GUARDED_BY(mutex_);
  const void* ended_session_ GUARDED_BY(mutex_) =
      nullptr;  // of the last binding, if it ended by itself
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace sarnet
