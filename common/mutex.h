#pragma once

#include <mutex>

// Annotated mutexes, so that clang's -Wthread-safety (`./dev lint`) finds accesses without the
// lock; other compilers ignore the annotations. They cost as much as std::mutex.
#if defined(__clang__)
#define TAVRIN_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define TAVRIN_THREAD_SAFETY(attribute)
#endif

// After a member: accessed only with `mutex` held.
#define GUARDED_BY(mutex) TAVRIN_THREAD_SAFETY(guarded_by(mutex))
// After a function's declarator: called only with `mutex` held; only without it. Also on lambdas.
#define REQUIRES(mutex) TAVRIN_THREAD_SAFETY(requires_capability(mutex))
#define EXCLUDES(mutex) TAVRIN_THREAD_SAFETY(locks_excluded(mutex))
// After the declarator of a function that the analysis cannot follow; a comment there says why.
#define NO_THREAD_SAFETY_ANALYSIS TAVRIN_THREAD_SAFETY(no_thread_safety_analysis)

namespace common {

class TAVRIN_THREAD_SAFETY(capability("mutex")) Mutex {
 public:
  void lock() TAVRIN_THREAD_SAFETY(acquire_capability()) { mutex_.lock(); }
  void unlock() TAVRIN_THREAD_SAFETY(release_capability()) { mutex_.unlock(); }

 private:
  friend class UniqueLock;

  std::mutex mutex_;
};

// Holds a mutex for a scope.
class TAVRIN_THREAD_SAFETY(scoped_lockable) LockGuard {
 public:
  explicit LockGuard(Mutex& mutex) TAVRIN_THREAD_SAFETY(acquire_capability(mutex)) : mutex_(mutex) {
    mutex_.lock();
  }
  ~LockGuard() TAVRIN_THREAD_SAFETY(release_capability()) { mutex_.unlock(); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  Mutex& mutex_;
};

// The same, for unlocking in between, or waiting:
//   condition.wait(lock.native(), [this]() REQUIRES(mutex_) { return done_; });
class TAVRIN_THREAD_SAFETY(scoped_lockable) UniqueLock {
 public:
  explicit UniqueLock(Mutex& mutex) TAVRIN_THREAD_SAFETY(acquire_capability(mutex))
      : lock_(mutex.mutex_) {}
  ~UniqueLock() TAVRIN_THREAD_SAFETY(release_capability()) {}
  UniqueLock(const UniqueLock&) = delete;
  UniqueLock& operator=(const UniqueLock&) = delete;

  void lock() TAVRIN_THREAD_SAFETY(acquire_capability()) { lock_.lock(); }
  void unlock() TAVRIN_THREAD_SAFETY(release_capability()) { lock_.unlock(); }
  std::unique_lock<std::mutex>& native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace common
