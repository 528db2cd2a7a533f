#include "strand.h"

#include <utility>

namespace scripted {

using Clock = std::chrono::steady_clock;

namespace {

template <class Action>
class Finally {
 public:
  explicit Finally(Action action) : action_(std::move(action)) {}
  ~Finally() { action_(); }
  Finally(const Finally&) = delete;
  Finally& operator=(const Finally&) = delete;

 private:
  Action action_;
};

}  // namespace

void Backlog::add() {
  const std::lock_guard lock(mutex_);
  ++tasks_;
}

void Backlog::remove(long tasks) {
  const std::lock_guard lock(mutex_);
  tasks_ -= tasks;
  if (tasks_ == 0) empty_.notify_all();
}

bool Backlog::waitEmpty(Clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  return empty_.wait_until(lock, deadline, [this] { return tasks_ == 0; });
}

void Strand::post(std::chrono::milliseconds delay, std::function<void()> task) {
  const std::lock_guard lock(mutex_);
  if (stopping_) return;
  backlog_.add();
  tasks_.emplace(Clock::now() + delay, std::move(task));
  if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  changed_.notify_all();
}

void Strand::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (stopping_) return;
    if (tasks_.empty()) {
      changed_.wait(lock);
      continue;
    }
    const auto due = tasks_.begin()->first;
    if (due > Clock::now()) {
      changed_.wait_until(lock, due);
      continue;
    }
    std::function<void()> task = std::move(tasks_.begin()->second);
    tasks_.erase(tasks_.begin());
    busy_ = true;
    lock.unlock();
    {
      // Also when the thread is ended by unwinding inside the task.
      const Finally done([this] {
        const std::lock_guard done_lock(mutex_);
        busy_ = false;
        changed_.notify_all();
        backlog_.remove(1);
      });
      task();
      task = nullptr;
    }
    lock.lock();
  }
}

void Strand::dropLocked() {
  backlog_.remove(static_cast<long>(tasks_.size()));
  tasks_.clear();
}

void Strand::drop() {
  std::unique_lock lock(mutex_);
  dropLocked();
  if (thread_.get_id() == std::this_thread::get_id()) return;
  changed_.wait(lock, [this] { return !busy_; });
}

void Strand::stop() {
  std::unique_lock lock(mutex_);
  if (stopping_) return;
  stopping_ = true;
  dropLocked();
  changed_.notify_all();
  std::thread thread = std::move(thread_);
  lock.unlock();
  if (thread.joinable()) thread.join();
  lock.lock();
  stopping_ = false;
  changed_.notify_all();
}

void Strand::finish() {
  std::unique_lock lock(mutex_);
  changed_.wait(
      lock, [this] { return !busy_ && (tasks_.empty() || tasks_.begin()->first > Clock::now()); });
  lock.unlock();
  stop();
}

bool Strand::isCurrent() const {
  const std::lock_guard lock(mutex_);
  return thread_.get_id() == std::this_thread::get_id();
}

Strands& strands() {
  static Strands* const instance = new Strands;
  return *instance;
}

}  // namespace scripted
