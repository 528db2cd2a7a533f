#include <benchmark/benchmark.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "percentiles.h"
#include "runtime/periodic_task_runner.h"

namespace {

constexpr std::chrono::seconds kDuration(10);

/// Compares each call with the instant it was scheduled for, and with the call before.
class MeasuredRunner : public PeriodicTaskRunner {
 public:
  explicit MeasuredRunner(Nanos period)
      : PeriodicTaskRunner("Bench"),
        period_(period),
        lateness_(static_cast<std::size_t>(kDuration / period) + 100),
        deviation_(static_cast<std::size_t>(kDuration / period) + 100) {}
  ~MeasuredRunner() override { stop(); }

  void measure(benchmark::State& state) {
    run([this] { note(Clock::now()); }, period_, [](const std::string&) {});
    std::this_thread::sleep_for(kDuration);
    stop();
    lateness_.report(state, "late_");
    deviation_.report(state, "interval_off_");
    state.counters["calls"] = static_cast<double>(calls_);
    // How much faster than nominal the task was called, which is what its own duration costs.
    const double nominal = std::chrono::duration<double>(period_).count() * (calls_ - 1);
    state.counters["fast_percent"] =
        100.0 * (nominal / std::chrono::duration<double>(last_ - first_).count() - 1.0);
  }

 protected:
  void sleepUntil(TimePoint t) override {
    scheduled_ = t;
    PeriodicTaskRunner::sleepUntil(t);
  }

 private:
  void note(TimePoint now) {
    if (calls_ == 0) {
      first_ = now;
    } else {
      lateness_.add(now - scheduled_);
      const Nanos off = now - last_ - period_;
      deviation_.add(off < Nanos::zero() ? -off : off);
    }
    last_ = now;
    ++calls_;
  }

  const Nanos period_;
  Percentiles lateness_;
  Percentiles deviation_;
  TimePoint scheduled_;
  TimePoint first_;
  TimePoint last_;
  int calls_ = 0;
};

void BM_PeriodicTaskRunner(benchmark::State& state) {
  while (state.KeepRunning()) {
    MeasuredRunner runner{std::chrono::milliseconds(state.range(0))};
    runner.measure(state);
    state.SetIterationTime(std::chrono::duration<double>(kDuration).count());
  }
}

BENCHMARK(BM_PeriodicTaskRunner)
    ->ArgName("period_ms")
    ->Arg(10)
    ->Arg(33)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace
