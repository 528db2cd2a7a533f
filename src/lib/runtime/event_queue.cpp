#include "runtime/event_queue.h"

#include <cxxabi.h>

#include <memory>

#include "common/guard.h"
#include "support/logger.h"

const log4cxx::LoggerPtr& EventQueue::logger_ = lastingLogger("EventQueue");

EventQueue::EventQueue(const std::string& name) : name_(name) {
  LOG4CXX_DEBUG(logger_, "EventQueue::EventQueue: " << name_);
}

EventQueue::~EventQueue() {
  LOG4CXX_DEBUG(logger_, "EventQueue::~EventQueue: " << name_);
  if (isRunning()) stop();
  // Still joinable only after the worker was ended from outside.
  if (worker_.joinable()) worker_.join();
}

void EventQueue::start() {
  bool expected = false;
  if (!running_.compare_exchange_strong(expected, true)) {
    LOG4CXX_WARN(logger_, "EventQueue::start: Already running (" << name_ << ")");
    return;
  }
  try {
    if (worker_.joinable()) worker_.join();
    worker_ = std::thread(&EventQueue::runWorker, this);
  } catch (const std::exception&) {
    abandon();
    throw;
  }
  LOG4CXX_DEBUG(logger_, "EventQueue::start: Started (" << name_ << ")");
}

void EventQueue::stop() {
  LOG4CXX_DEBUG(logger_, "EventQueue::stop: Stopping (" << name_ << ")");
  {
    const common::LockGuard lock(mutex_);
    bool expected = true;
    if (!running_.compare_exchange_strong(expected, false)) {
      LOG4CXX_WARN(logger_, "EventQueue::stop: Not running (" << name_ << ")");
      return;
    }
  }
  cv_.notify_one();
  if (worker_.joinable()) worker_.join();
  // The system may reuse the id for another thread, which must not count as the worker.
  worker_thread_id_.store(std::thread::id());
  worker_role_.leave();
  {
    const common::LockGuard lock(mutex_);
    queue_.clear();
  }
  LOG4CXX_DEBUG(logger_, "EventQueue::stop: Stopped (" << name_ << ")");
}

bool EventQueue::isRunning() const { return running_.load(); }

bool EventQueue::post(std::function<void()>&& task) {
  {
    const common::LockGuard lock(mutex_);
    if (!running_.load()) {
      LOG4CXX_TRACE(logger_,
                    "EventQueue::post: Queue not running, dropping event (" << name_ << ")");
      return false;
    }
    queue_.push_back(std::move(task));
  }
  // After unlocking, so that the worker does not wake only to wait for the mutex.
  cv_.notify_one();
  return true;
}

namespace {

/// Where a caller waits for its task. Lives on the caller's stack.
struct Completion {
  common::Mutex mutex;
  std::condition_variable cv;
  bool done GUARDED_BY(mutex) = false;

  void wait() {
    common::UniqueLock lock(mutex);
    cv.wait(lock.native(), [this]() REQUIRES(mutex) { return done; });
  }
};

/// Releases the waiter once the task has run, or when it is dropped because the worker is gone.
class CompletionSignal {
 public:
  explicit CompletionSignal(Completion& completion) : completion_(&completion) {}
  ~CompletionSignal() { fire(); }
  CompletionSignal(const CompletionSignal&) = delete;
  CompletionSignal& operator=(const CompletionSignal&) = delete;

  void fire() {
    Completion* const completion = std::exchange(completion_, nullptr);
    if (completion == nullptr) return;
    // Notified under the mutex: the waiter cannot return, and destroy the record, before that.
    const common::LockGuard lock(completion->mutex);
    completion->done = true;
    completion->cv.notify_one();
  }

 private:
  Completion* completion_;
};

}  // namespace

void EventQueue::postAndWait(std::function<void()>&& task) {
  if (isOnWorkerThread()) {
    task();
    return;
  }
  Completion completion;
  auto signal = std::make_shared<CompletionSignal>(completion);
  const bool accepted = post([signal = std::move(signal), task = std::move(task)]() mutable {
    {
      // The task's captures are destroyed before the caller continues.
      const std::function<void()> owned = std::move(task);
      // The caller gets the default value instead of an exception.
      common::guard(owned, [](const char*) {});
    }
    signal->fire();
  });
  if (accepted) completion.wait();
}

void EventQueue::flush() {
  postAndWait([] {});
}

bool EventQueue::isOnWorkerThread() const {
  return std::this_thread::get_id() == worker_thread_id_.load();
}

void EventQueue::runWorker() try {
  worker_role_.take();
  worker_thread_id_.store(std::this_thread::get_id());
  LOG4CXX_DEBUG(logger_, "EventQueue::processLoop: Worker thread started (" << name_ << ")");
  processLoop();
  LOG4CXX_DEBUG(logger_, "EventQueue::processLoop: Worker thread exiting (" << name_ << ")");
} catch (abi::__forced_unwind&) {
  // The interpreter ends threads that request its lock while it shuts down. Afterwards nobody may
  // wait for this one.
  abandon();
  throw;
} catch (const std::exception&) {
  abandon();
}

void EventQueue::abandon() {
  std::deque<std::function<void()>> dropped;
  const common::LockGuard lock(mutex_);
  running_.store(false);
  dropped.swap(queue_);
}

void EventQueue::processLoop() {
  const auto run = [this](const std::function<void()>& task, const char* doing) {
    common::guard(task, [&](const char* text) {
      if (text != nullptr) {
        LOG4CXX_ERROR(logger_, "EventQueue::processLoop: Exception " << doing << " event (" << name_
                                                                     << "): " << text);
      } else {
        LOG4CXX_ERROR(logger_, "EventQueue::processLoop: Unknown exception " << doing << " event ("
                                                                             << name_ << ")");
      }
    });
  };

  while (running_.load()) {
    std::function<void()> task;
    {
      common::UniqueLock lock(mutex_);
      cv_.wait(lock.native(),
               [this]() REQUIRES(mutex_) { return !queue_.empty() || !running_.load(); });
      if (queue_.empty()) continue;
      task = std::move(queue_.front());
      queue_.pop_front();
    }
    run(task, "processing");
  }

  std::deque<std::function<void()>> remaining;
  {
    const common::LockGuard lock(mutex_);
    remaining.swap(queue_);
  }
  for (const auto& task : remaining) run(task, "draining");
}
