#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

/// Durations of single events, reported as p50, p99 and max in microseconds: a mean hides what a
/// listener hears.
class Percentiles {
 public:
  explicit Percentiles(std::size_t expected) { micros_.reserve(expected); }

  void add(std::chrono::nanoseconds duration) {
    micros_.push_back(std::chrono::duration<double, std::micro>(duration).count());
  }

  void report(benchmark::State& state, const std::string& prefix = "") {
    if (micros_.empty()) return;
    std::sort(micros_.begin(), micros_.end());
    state.counters[prefix + "p50_us"] = at(0.50);
    state.counters[prefix + "p99_us"] = at(0.99);
    state.counters[prefix + "max_us"] = micros_.back();
  }

 private:
  double at(double share) const {
    return micros_[static_cast<std::size_t>(share * static_cast<double>(micros_.size() - 1))];
  }

  std::vector<double> micros_;
};
