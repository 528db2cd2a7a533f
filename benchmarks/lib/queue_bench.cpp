#include <benchmark/benchmark.h>

#include <chrono>
#include <semaphore>

#include "percentiles.h"
#include "runtime/clock.h"
#include "runtime/event_queue.h"

namespace {

constexpr Nanos kGap = std::chrono::milliseconds(10);

/// With a gap both threads have gone to sleep before each hop, as between events of a session.
void pause(benchmark::State& state) {
  if (state.range(0) != 0) Clock::sleepUntil(Clock::now() + kGap);
}

void configure(benchmark::internal::Benchmark* bench) { bench->ArgName("gap")->UseManualTime(); }

void BM_PostToRun(benchmark::State& state) {
  EventQueue queue("bench");
  queue.start();
  Percentiles percentiles(static_cast<std::size_t>(state.max_iterations));
  std::binary_semaphore ran(0);
  TimePoint run_at;
  while (state.KeepRunning()) {
    pause(state);
    const TimePoint posted_at = Clock::now();
    queue.post([&] {
      run_at = Clock::now();
      ran.release();
    });
    ran.acquire();
    percentiles.add(run_at - posted_at);
    state.SetIterationTime(std::chrono::duration<double>(run_at - posted_at).count());
  }
  percentiles.report(state);
}

void BM_PostAndWait(benchmark::State& state) {
  EventQueue queue("bench");
  queue.start();
  Percentiles percentiles(static_cast<std::size_t>(state.max_iterations));
  while (state.KeepRunning()) {
    pause(state);
    const TimePoint begin = Clock::now();
    benchmark::DoNotOptimize(queue.postAndWait<bool>([] { return true; }));
    const Nanos taken = Clock::now() - begin;
    percentiles.add(taken);
    state.SetIterationTime(std::chrono::duration<double>(taken).count());
  }
  percentiles.report(state);
}

BENCHMARK(BM_PostToRun)->Apply(configure)->Arg(1)->Iterations(500);
BENCHMARK(BM_PostToRun)->Apply(configure)->Arg(0)->Iterations(20'000);
BENCHMARK(BM_PostAndWait)->Apply(configure)->Arg(1)->Iterations(500);
BENCHMARK(BM_PostAndWait)->Apply(configure)->Arg(0)->Iterations(20'000);

}  // namespace
