#include "relay/signalling/main_loop.h"

#include <utility>

#include "base/guard.h"

namespace sarnet::relay {
namespace {

// Rounds that GLib's pending operations get after the end: cancelled ones release their sockets in
// a few.
constexpr int kLastRounds = 256;
constexpr std::chrono::seconds kLastWait{1};
constexpr std::chrono::milliseconds kLastLook{5};

using Action = std::function<void()>;

struct TimerAction {
  Action action;
  bool repeat = false;
};

gboolean run_timer(gpointer data) {
  // A copy: the action may destroy the timer that owns it.
  const TimerAction timer = *static_cast<TimerAction*>(data);
  guarded("A timer", timer.action);
  return timer.repeat ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

}  // namespace

struct MainLoop::WakeSource {
  GSource source;
  MainLoop* loop;

  static gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
    g_source_set_ready_time(source, -1);
    reinterpret_cast<WakeSource*>(source)->loop->run_posted();
    return G_SOURCE_CONTINUE;
  }
};

MainLoop::MainLoop() : context_(g_main_context_new()) {
  static GSourceFuncs functions{nullptr, nullptr, &WakeSource::dispatch, nullptr, nullptr, nullptr};
  wake_.reset(g_source_new(&functions, sizeof(WakeSource)));
  reinterpret_cast<WakeSource*>(wake_.get())->loop = this;
  g_source_attach(wake_.get(), context_.get());
}

MainLoop::~MainLoop() = default;

void MainLoop::post(std::function<void()> task) {
  const common::LockGuard lock(mutex_);
  if (closed_) return;
  tasks_.push_back(std::move(task));
  g_source_set_ready_time(wake_.get(), 0);
}

void MainLoop::run_posted() {
  std::deque<Action> tasks;
  {
    const common::LockGuard lock(mutex_);
    tasks.swap(tasks_);
  }
  while (!tasks.empty()) {
    const Action task = std::move(tasks.front());
    tasks.pop_front();
    guarded("A task", task);
  }
}

void MainLoop::run() {
  thread_.take();
  g_main_context_push_thread_default(context_.get());
  while (!quitting_) g_main_context_iteration(context_.get(), TRUE);
  std::deque<Action> dropped;
  {
    const common::LockGuard lock(mutex_);
    closed_ = true;
    dropped.swap(tasks_);
  }
  dropped.clear();
  run_last_rounds();
  g_main_context_pop_thread_default(context_.get());
  thread_.leave();
}

void MainLoop::run_last_rounds() {
  const auto finish = [this] {
    for (int i = 0; i < kLastRounds && g_main_context_iteration(context_.get(), FALSE) != FALSE;) {
      ++i;
    }
  };
  finish();
  const auto deadline = std::chrono::steady_clock::now() + kLastWait;
  while (*under_way_ > 0 && std::chrono::steady_clock::now() < deadline) {
    const Timer look(*this, kLastLook, [] {});
    g_main_context_iteration(context_.get(), TRUE);
    finish();
  }
}

void MainLoop::quit() {
  quitting_ = true;
  g_main_context_wakeup(context_.get());
}

MainLoop::Timer::Timer(const MainLoop& loop, std::chrono::milliseconds delay,
                       std::function<void()> action, bool repeat)
    : source_(g_timeout_source_new(static_cast<guint>(delay.count()))) {
  g_source_set_callback(source_.get(), &run_timer, new TimerAction{std::move(action), repeat},
                        [](gpointer data) { delete static_cast<TimerAction*>(data); });
  g_source_attach(source_.get(), loop.context());
}

}  // namespace sarnet::relay
