#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <stack>
#include <utility>

#include "common/mutex.h"

/// Recycles buffers by their exact size, so that a steady flow of frames allocates nothing.
///
/// One instance per process, never destroyed: frames may return while static objects are destroyed.
/// Any thread; the mutex is a leaf and is not held while memory is allocated or freed. Nothing
/// trims the pool: it holds as many buffers of each size as were ever in use at once.
template <class T>
class MemoryPool {
 public:
  using Buffer = std::unique_ptr<T[]>;

  static MemoryPool& instance() {
    static MemoryPool& pool = *new MemoryPool();
    return pool;
  }

  MemoryPool(const MemoryPool&) = delete;
  MemoryPool& operator=(const MemoryPool&) = delete;

  /// The most recently returned buffer of `size` elements, with its old contents, or a new one of
  /// zeros. Empty when `size` is not positive or memory is out.
  Buffer getBuffer(int size) {
    if (size < 1) return {};
    {
      const common::LockGuard lock(mutex_);
      const auto entry = pools_.find(size);
      if (entry != pools_.end() && !entry->second.empty()) {
        Buffer buffer = std::move(entry->second.top());
        entry->second.pop();
        return buffer;
      }
    }
    return Buffer(new (std::nothrow) T[static_cast<std::size_t>(size)]());
  }

  /// Takes back a buffer of exactly `size` elements; false, and the buffer is freed, when it is
  /// empty or there is no memory to record it.
  bool returnBuffer(int size, Buffer buffer) {
    if (size < 1 || !buffer) return false;
    try {
      const common::LockGuard lock(mutex_);
      pools_[size].push(std::move(buffer));
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }

  /// Frees every idle buffer.
  void clear() {
    std::map<int, Stack> dropped;
    const common::LockGuard lock(mutex_);
    dropped.swap(pools_);
  }

  /// The number of idle buffers of that size.
  std::size_t getPoolSize(int size) {
    const common::LockGuard lock(mutex_);
    const auto entry = pools_.find(size);
    return entry == pools_.end() ? 0 : entry->second.size();
  }

 private:
  using Stack = std::stack<Buffer, std::deque<Buffer>>;

  MemoryPool() = default;
  ~MemoryPool() = default;

  common::Mutex mutex_;
  std::map<int, Stack> pools_ GUARDED_BY(mutex_);
};
