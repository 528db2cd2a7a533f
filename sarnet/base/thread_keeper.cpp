#include "base/thread_keeper.h"

#include <pthread.h>

#include <utility>

#include "base/guard.h"

namespace sarnet {
namespace {

thread_local bool own_thread = false;

}  // namespace

ThreadKeeper& ThreadKeeper::instance() {
  // Never destroyed: a thread may still be here when the process runs its exit handlers.
  static auto* const keeper = new ThreadKeeper;
  return *keeper;
}

std::thread::id ThreadKeeper::start(const char* name, std::function<void()> body) {
  join_ended();
  const common::LockGuard lock(mutex_);
  Entry& entry = threads_.emplace_back();
  try {
    entry.thread = std::thread([this, &entry, name, body = std::move(body)]() mutable {
      // A destructor, since the program may end the thread by pthread_exit inside a callback. The
      // body's captures go first, so that none is left once the thread counts as ended.
      struct Farewell {
        ThreadKeeper& keeper;
        Entry& entry;
        std::function<void()>& body;
        ~Farewell() {
          body = nullptr;
          const common::LockGuard farewell_lock(keeper.mutex_);
          entry.ended = true;
          keeper.ended_.notify_all();
        }
      } farewell{*this, entry, body};
      own_thread = true;
      pthread_setname_np(pthread_self(), name);
      guarded(name, body);
    });
  } catch (...) {
    threads_.pop_back();
    throw;
  }
  return entry.thread.get_id();
}

void ThreadKeeper::join_ended() {
  std::list<Entry> ended;
  {
    const common::LockGuard lock(mutex_);
    for (auto entry = threads_.begin(); entry != threads_.end();) {
      const auto current = entry++;
      if (current->ended) ended.splice(ended.end(), threads_, current);
    }
  }
  for (Entry& entry : ended) entry.thread.join();
}

bool ThreadKeeper::join_all(std::chrono::milliseconds timeout) {
  bool all_ended = false;
  {
    common::UniqueLock lock(mutex_);
    all_ended = ended_.wait_for(lock.native(), timeout, [this]() REQUIRES(mutex_) {
      for (const Entry& entry : threads_) {
        if (!entry.ended) return false;
      }
      return true;
    });
  }
  join_ended();
  if (!all_ended) SARNET_LOG(kError, "A callback of the program holds a thread of the library");
  return all_ended;
}

bool ThreadKeeper::on_own_thread() const { return own_thread; }

}  // namespace sarnet
