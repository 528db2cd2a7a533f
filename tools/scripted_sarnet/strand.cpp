#include "strand.h"

#include <utility>

namespace scripted {

using Clock = std::chrono::steady_clock;

void Strand::post(std::function<void()> task, Milliseconds delay) {
  const std::lock_guard lock(mutex_);
  if (stopping_) return;
  tasks_.emplace(Clock::now() + delay, std::move(task));
  if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  changed_.notify_all();
}

void Strand::run() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (tasks_.empty()) {
      changed_.wait(lock);
    } else if (const auto due = tasks_.begin()->first; due > Clock::now()) {
      changed_.wait_until(lock, due);
    } else {
      auto task = tasks_.extract(tasks_.begin());
      busy_ = true;
      lock.unlock();
      // Also when the thread is unwound inside the task.
      const struct Done {
        Strand& strand;
        std::unique_lock<std::mutex>& lock;
        ~Done() {
          lock.lock();
          strand.busy_ = false;
          strand.changed_.notify_all();
        }
      } done{*this, lock};
      task.mapped()();
      task = {};
    }
  }
}

void Strand::drop() {
  std::unique_lock lock(mutex_);
  tasks_.clear();
  changed_.wait(lock, [this] { return !busy_; });
}

void Strand::stop() {
  std::unique_lock lock(mutex_);
  tasks_.clear();
  stopping_ = true;
  changed_.notify_all();
  std::thread thread = std::move(thread_);
  lock.unlock();
  if (thread.joinable()) thread.join();
  lock.lock();
  stopping_ = false;
}

bool Strand::waitIdle(Clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  return changed_.wait_until(lock, deadline, [this] { return tasks_.empty() && !busy_; });
}

bool Strand::isCurrent() const {
  const std::lock_guard lock(mutex_);
  return thread_.get_id() == std::this_thread::get_id();
}

Strands& strands() {
  static auto* const instance = new Strands;
  return *instance;
}

}  // namespace scripted
