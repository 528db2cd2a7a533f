#pragma once

#include <bit>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <unordered_map>
#include <utility>

#include "common/mutex.h"

// What the callbacks of the library need to reach objects that may be going away at that moment.
//
// The library is given a ticket as `user_data`, never an address. A callback trades the ticket for
// a shared gate, which holds all that the callback may touch, and so stays sound however late it
// comes: with the object gone it finds no gate, or finishes on a gate that nobody else holds any
// more.

/// The gates of one kind of object, by ticket. Tickets are never used twice, so that a late
/// callback of one object cannot meet the next one. Any thread may call; the mutex is a leaf.
template <class Gate>
class CallbackGates {
 public:
  /// Never destroyed: callbacks may come while the process's static objects go.
  static CallbackGates& instance() {
    static auto* const gates = new CallbackGates;
    return *gates;
  }

  /// The ticket by which `gate` is found until `close`. Never null.
  void* open(std::shared_ptr<Gate> gate) {
    const std::unique_lock lock(mutex_);
    gates_.emplace(++last_ticket_, std::move(gate));
    return std::bit_cast<void*>(last_ticket_);
  }

  void close(void* ticket) {
    std::shared_ptr<Gate> gate;  // goes outside the lock
    const std::unique_lock lock(mutex_);
    const auto found = gates_.find(std::bit_cast<std::uintptr_t>(ticket));
    if (found != gates_.end()) {
      gate = std::move(found->second);
      gates_.erase(found);
    }
  }

  /// Empty for a ticket that was closed, or never given.
  std::shared_ptr<Gate> find(void* ticket) const {
    const std::shared_lock lock(mutex_);
    const auto found = gates_.find(std::bit_cast<std::uintptr_t>(ticket));
    return found != gates_.end() ? found->second : nullptr;
  }

 private:
  mutable std::shared_mutex mutex_;
  std::uintptr_t last_ticket_ = 0;
  std::unordered_map<std::uintptr_t, std::shared_ptr<Gate>> gates_;
};

/// Counts the callbacks that are inside an object, so that its owner can close the door behind the
/// last one. Only for callbacks that do no more than post, since `close` waits for them.
class CallbackDoor {
 public:
  /// One callback's stay, from construction to destruction. False if the door was closed already.
  class Visit {
   public:
    explicit Visit(CallbackDoor& door) : door_(door), inside_(door.enter()) {}
    ~Visit() {
      if (inside_) {
        door_.leave();
      }
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    explicit operator bool() const { return inside_; }

   private:
    CallbackDoor& door_;
    const bool inside_;
  };

  /// From here on nobody enters. Returns when the last visitor has left. May be repeated.
  void close() {
    common::UniqueLock lock(mutex_);
    closed_ = true;
    empty_.wait(lock.native(), [this]() REQUIRES(mutex_) { return visitors_ == 0; });
  }

 private:
  bool enter() {
    const common::LockGuard lock(mutex_);
    visitors_ += closed_ ? 0 : 1;
    return !closed_;
  }

  void leave() {
    const common::LockGuard lock(mutex_);
    if (--visitors_ == 0) {
      empty_.notify_all();
    }
  }

  common::Mutex mutex_;
  std::condition_variable empty_;
  int visitors_ GUARDED_BY(mutex_) = 0;
  bool closed_ GUARDED_BY(mutex_) = false;
};
