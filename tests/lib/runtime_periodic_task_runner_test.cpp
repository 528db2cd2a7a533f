#include <pthread.h>

#include <atomic>
#include <csignal>
#include <stdexcept>
#include <thread>

#include "lib_test.h"
#include "runtime/clock.h"
#include "runtime/periodic_task_runner.h"

using namespace lib_test;
using std::chrono::milliseconds;
using testing::ElementsAre;

namespace {

void ignoreError(const std::string&) {}

/// Notes every instant that the loop schedules, and when it asked.
class ObservedRunner : public PeriodicTaskRunner {
 public:
  struct Sleep {
    TimePoint until;
    TimePoint entered;
    TimePoint left;
  };

  ObservedRunner() : PeriodicTaskRunner("Observed") {}
  ~ObservedRunner() override { stop(); }

  std::vector<Sleep> sleeps() {
    const std::lock_guard lock(mutex_);
    return sleeps_;
  }

 protected:
  void sleepUntil(TimePoint t) override {
    const TimePoint entered = Clock::now();
    PeriodicTaskRunner::sleepUntil(t);
    const std::lock_guard lock(mutex_);
    sleeps_.push_back({t, entered, Clock::now()});
  }

 private:
  std::mutex mutex_;
  std::vector<Sleep> sleeps_;
};

TEST(PeriodicTaskRunner, SchedulesEachCallAPeriodLaterLessTheTimeOfTheCall) {
  constexpr Nanos kPeriod = milliseconds(8);
  constexpr Nanos kWork = milliseconds(2);
  Counter calls;
  ObservedRunner runner;
  ASSERT_TRUE(runner.run(
      [&] {
        const TimePoint end = Clock::now() + kWork;
        while (Clock::now() < end) {
        }
        calls.add();
      },
      kPeriod, ignoreError));
  // What the loop measured lies between the work itself and the time from sleep to sleep. Longer
  // than a period and the schedule may have started over, as it will now and then on a busy
  // machine.
  int checked = 0;
  for (int wanted = 20; checked < 5; wanted += 20) {
    ASSERT_TRUE(calls.await(wanted));
    const auto sleeps = runner.sleeps();
    checked = 0;
    for (std::size_t i = 1; i < sleeps.size(); ++i) {
      const Nanos longest = sleeps[i].entered - sleeps[i - 1].left;
      if (longest >= kPeriod) continue;
      const Nanos step = sleeps[i].until - sleeps[i - 1].until;
      ASSERT_LE(step, kPeriod - kWork);
      ASSERT_GE(step, kPeriod - longest);
      ++checked;
    }
  }
}

TEST(PeriodicTaskRunner, OverrunsRestartTheSchedule) {
  Counter calls;
  ObservedRunner runner;
  std::vector<std::size_t> sleeps_before_call;
  ASSERT_TRUE(runner.run(
      [&] {
        if (calls.value() < 2) {
          sleeps_before_call.push_back(runner.sleeps().size());
          Clock::sleepUntil(Clock::now() + milliseconds(5));
        }
        calls.add();
      },
      milliseconds(3), ignoreError));
  ASSERT_TRUE(calls.await(2));
  runner.stop();
  // The first call is due at once, and the second follows the long first one without a sleep.
  EXPECT_THAT(sleeps_before_call, ElementsAre(0U, 0U));
}

TEST(PeriodicTaskRunner, AThrowingTaskEndsTheLoopAfterOneReport) {
  const struct {
    PeriodicTaskRunner::Task task;
    const char* message;
  } kRows[] = {
      {[] { throw std::runtime_error("boom"); }, "Exception occurred running loop: boom"},
      {[] { throw 7; }, "Unknown error occurred running loop."},
      {nullptr, "Exception occurred running loop: bad_function_call"},
  };
  for (const auto& row : kRows) {
    std::vector<std::string> reports;
    Counter reported;
    PeriodicTaskRunner runner("Failing");
    ASSERT_TRUE(runner.run(row.task, milliseconds(1), [&](const std::string& message) {
      reports.push_back(message);
      reported.add();
    }));
    ASSERT_TRUE(reported.await(1));
    EXPECT_TRUE(runner.isRunning());
    EXPECT_FALSE(runner.run([] {}, milliseconds(1), ignoreError));
    EXPECT_TRUE(runner.stop());
    EXPECT_FALSE(runner.isRunning());
    EXPECT_THAT(reports, ElementsAre(row.message));
    Counter calls;
    ASSERT_TRUE(runner.run([&] { calls.add(); }, milliseconds(1), ignoreError));
    EXPECT_TRUE(calls.await(1));
    EXPECT_TRUE(runner.stop());
    EXPECT_FALSE(runner.stop());
  }
}

TEST(PeriodicTaskRunner, RunAndStopFromManyThreadsKeepOneLoop) {
  PeriodicTaskRunner runner("Racing");
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  const auto task = [&] {
    if (inside.fetch_add(1) != 0) overlapped = true;
    inside.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 100; ++round) {
        if (i % 2 == 0) {
          runner.run(task, std::chrono::microseconds(50), ignoreError);
        } else {
          runner.stop();
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  runner.stop();
  EXPECT_FALSE(runner.isRunning());
  EXPECT_FALSE(overlapped);
}

TEST(Clock, SleepsUntilTheInstantAndThroughSignals) {
  const TimePoint past = Clock::now() - std::chrono::hours(1);
  Clock::sleepUntil(past);

  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  std::atomic<bool> awake{false};
  std::atomic<bool> early{true};
  const TimePoint until = Clock::now() + milliseconds(50);
  std::thread sleeper([&] {
    Clock::sleepUntil(until);
    early = Clock::now() < until;
    awake = true;
  });
  while (!awake) {
    pthread_kill(sleeper.native_handle(), SIGUSR1);
    std::this_thread::yield();
  }
  sleeper.join();
  EXPECT_FALSE(early);
}

}  // namespace
