#include "base/strand.h"

#include <condition_variable>
#include <deque>
#include <utility>

#include "base/guard.h"
#include "base/thread_keeper.h"
#include "common/mutex.h"

namespace sarnet {

struct Strand::State {
  common::Mutex mutex;
  std::condition_variable changed;
  std::deque<std::function<void()>> tasks GUARDED_BY(mutex);
  int holds GUARDED_BY(mutex) = 0;
  bool closed GUARDED_BY(mutex) = false;
};

Strand::Strand(const char* name) : state_(std::make_shared<State>()) {
  ThreadKeeper::instance().start(name, [state = state_] { run(*state); });
}

Strand::~Strand() { close(); }

void Strand::run(State& state) {
  while (true) {
    std::function<void()> task;
    {
      common::UniqueLock lock(state.mutex);
      state.changed.wait(lock.native(), [&]() REQUIRES(state.mutex) {
        return state.closed || (state.holds == 0 && !state.tasks.empty());
      });
      if (state.closed) return;
      task = std::move(state.tasks.front());
      state.tasks.pop_front();
    }
    guarded("An event was lost by an exception", task);
  }
}

void Strand::post(std::function<void()> task) {
  {
    const common::LockGuard lock(state_->mutex);
    if (state_->closed) return;
    state_->tasks.push_back(std::move(task));
  }
  state_->changed.notify_one();
}

void Strand::close() {
  // The tasks' captures are released outside the lock: they may hold the last reference to an
  // object that closes this strand again.
  std::deque<std::function<void()>> dropped;
  {
    const common::LockGuard lock(state_->mutex);
    state_->closed = true;
    dropped.swap(state_->tasks);
  }
  state_->changed.notify_one();
}

Strand::Hold::Hold(Strand& strand) : strand_(strand) {
  const common::LockGuard lock(strand_.state_->mutex);
  ++strand_.state_->holds;
}

Strand::Hold::~Hold() {
  {
    const common::LockGuard lock(strand_.state_->mutex);
    --strand_.state_->holds;
  }
  strand_.state_->changed.notify_one();
}

}  // namespace sarnet
