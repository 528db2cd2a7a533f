#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <utility>
#include <vector>

#include "common/mutex.h"

namespace sarnet {

// How much was delivered to the program and how much was dropped before. Any thread.
struct DeliveryCounter {
  std::atomic<std::uint64_t> delivered{0};
  std::atomic<std::uint64_t> dropped{0};
};

// A queue of media for one callback. Any thread pushes, one pops. A full queue drops its oldest
// item. All items are made by the constructor and recycled, so that neither side allocates.
template <class Item>
class DeliveryQueue {
 public:
  using Clock = std::chrono::steady_clock;

  // The counter must outlive the queue.
  DeliveryQueue(std::size_t capacity, DeliveryCounter& counter, DeliveryCounter& total)
      : entries_(capacity), counter_(counter), total_(total) {}

  // `fill` gets a recycled item to overwrite; it runs under the queue's lock.
  template <class Fill>
  void push(Fill&& fill) {
    const auto now = Clock::now();
    {
      const common::LockGuard lock(mutex_);
      if (closed_) return;
      if (size_ == entries_.size()) {
        first_ = (first_ + 1) % entries_.size();
        --size_;
        ++counter_.dropped;
        ++total_.dropped;
      }
      Entry& entry = entries_[(first_ + size_) % entries_.size()];
      std::forward<Fill>(fill)(entry.item);
      entry.ready = now;
      ++size_;
    }
    pushed_.notify_one();
  }

  // Waits for an item, swaps the oldest with `item`, and gives the time it was pushed. False once
  // closed, even if some are left.
  bool pop(Item& item, Clock::time_point& ready) {
    common::UniqueLock lock(mutex_);
    pushed_.wait(lock.native(), [this]() REQUIRES(mutex_) { return closed_ || size_ > 0; });
    if (closed_) return false;
    std::swap(item, entries_[first_].item);
    ready = entries_[first_].ready;
    first_ = (first_ + 1) % entries_.size();
    --size_;
    ++counter_.delivered;
    ++total_.delivered;
    return true;
  }

  void close() {
    {
      const common::LockGuard lock(mutex_);
      closed_ = true;
    }
    pushed_.notify_one();
  }

  bool closed() const {
    const common::LockGuard lock(mutex_);
    return closed_;
  }

 private:
  struct Entry {
    Item item;
    Clock::time_point ready;
  };

  mutable common::Mutex mutex_;
  std::condition_variable pushed_;
  std::vector<Entry> entries_ GUARDED_BY(mutex_);
  std::size_t first_ GUARDED_BY(mutex_) = 0;
  std::size_t size_ GUARDED_BY(mutex_) = 0;
  bool closed_ GUARDED_BY(mutex_) = false;
  DeliveryCounter& counter_;
  DeliveryCounter& total_;
};

}  // namespace sarnet
