#pragma once

#include <bit>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <unordered_map>
#include <utility>

#include "common/mutex.h"

// How the library's callbacks reach objects that may be ending at that moment.
//
// The library is given a ticket as `user_data`, never an address. A callback looks up the ticket's
// shared state, which holds all that it may touch, and so stays safe however late it comes: once
// the object is gone it finds no state, or finishes on a state of which it holds the last
// reference.

/// The states of one kind of object, by ticket. Tickets are never reused, so that a late callback
/// of one object cannot reach the next one. Any thread may call; the mutex is a leaf.
template <class State>
class CallbackStates {
 public:
  /// Never destroyed: callbacks may come while static objects are destroyed.
  static CallbackStates& instance() {
    static auto* const states = new CallbackStates;
    return *states;
  }

  /// The ticket by which `state` is found until `close`. Never null.
  void* open(std::shared_ptr<State> state) {
    const std::unique_lock lock(mutex_);
    states_.emplace(++last_ticket_, std::move(state));
    return std::bit_cast<void*>(last_ticket_);
  }

  void close(void* ticket) {
    std::shared_ptr<State> state;  // released outside the lock
    const std::unique_lock lock(mutex_);
    const auto found = states_.find(std::bit_cast<std::uintptr_t>(ticket));
    if (found != states_.end()) {
      state = std::move(found->second);
      states_.erase(found);
    }
  }

  /// Empty for a ticket that was closed, or never given.
  std::shared_ptr<State> find(void* ticket) const {
    const std::shared_lock lock(mutex_);
    const auto found = states_.find(std::bit_cast<std::uintptr_t>(ticket));
    return found != states_.end() ? found->second : nullptr;
  }

 private:
  mutable std::shared_mutex mutex_;
  std::uintptr_t last_ticket_ = 0;
  std::unordered_map<std::uintptr_t, std::shared_ptr<State>> states_;
};

/// Counts the callbacks inside an object, so that its owner can wait for the last one. Only for
/// callbacks that merely post, since `close` waits for them.
class CallbackGate {
 public:
  /// Counts one callback as inside while it exists. False if the gate was already closed.
  class Pass {
   public:
    explicit Pass(CallbackGate& gate) : gate_(gate), entered_(gate.enter()) {}
    ~Pass() {
      if (entered_) gate_.leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    explicit operator bool() const { return entered_; }

   private:
    CallbackGate& gate_;
    const bool entered_;
  };

  /// Admits no more callbacks. Returns when the last one has left. May be repeated.
  void close() {
    common::UniqueLock lock(mutex_);
    closed_ = true;
    empty_.wait(lock.native(), [this]() REQUIRES(mutex_) { return inside_ == 0; });
  }

 private:
  bool enter() {
    const common::LockGuard lock(mutex_);
    inside_ += closed_ ? 0 : 1;
    return !closed_;
  }

  void leave() {
    const common::LockGuard lock(mutex_);
    if (--inside_ == 0) empty_.notify_all();
  }

  common::Mutex mutex_;
  std::condition_variable empty_;
  int inside_ GUARDED_BY(mutex_) = 0;
  bool closed_ GUARDED_BY(mutex_) = false;
};
