#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// What the native tests wait with, instead of sleeping. Any thread may call any of it.

/// Long enough for a busy machine under a sanitizer; nothing waits that long when all is well.
inline constexpr std::chrono::seconds kDeadline{30};

/// A count that threads raise and a test waits for.
class Counter {
 public:
  void add() {
    const std::scoped_lock lock(mutex_);
    ++value_;
    raised_.notify_all();
  }
  bool await(int at_least, std::chrono::milliseconds deadline = kDeadline) {
    std::unique_lock lock(mutex_);
    return raised_.wait_for(lock, deadline, [&] { return value_ >= at_least; });
  }
  int value() {
    const std::scoped_lock lock(mutex_);
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable raised_;
  int value_ = 0;
};

/// A gate that one thread waits at until another opens it.
class Latch {
 public:
  void open() { opened_.add(); }
  bool wait(std::chrono::milliseconds deadline = kDeadline) { return opened_.await(1, deadline); }

 private:
  Counter opened_;
};

/// Lines of text in the order in which they came. A line is looked for by what it begins with.
class Journal {
 public:
  void add(const std::string& line) {
    const std::scoped_lock lock(mutex_);
    lines_.push_back(line);
    added_.notify_all();
  }
  std::vector<std::string> lines() const {
    const std::scoped_lock lock(mutex_);
    return lines_;
  }
  void clear() {
    const std::scoped_lock lock(mutex_);
    lines_.clear();
  }
  long count(const std::string& begin) const {
    const std::scoped_lock lock(mutex_);
    return counted(begin);
  }
  bool await(const std::string& begin, long times = 1,
             std::chrono::milliseconds deadline = kDeadline) const {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, deadline, [&] { return counted(begin) >= times; });
  }
  bool await_any(const std::vector<std::pair<std::string, long>>& lines,
                 std::chrono::milliseconds deadline = kDeadline) const {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, deadline, [&] {
      return std::ranges::any_of(
          lines, [&](const auto& line) { return counted(line.first) >= line.second; });
    });
  }

 private:
  long counted(const std::string& begin) const {
    return std::count_if(lines_.begin(), lines_.end(),
                         [&](const std::string& line) { return line.starts_with(begin); });
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<std::string> lines_;
};
