#pragma once

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace common {

// Checks that code runs on the thread it belongs to: builds with TAVRIN_CHECK_THREADS (debug, asan)
// end the program if not, others check nothing. Unowned until a thread takes it, and after that
// thread leaves it.
class ThreadRole {
 public:
  explicit constexpr ThreadRole([[maybe_unused]] const char* name)
#ifdef TAVRIN_CHECK_THREADS
      : name_(name)
#endif
  {
  }

#ifdef TAVRIN_CHECK_THREADS
  void take() { owner_.store(std::this_thread::get_id()); }
  void leave() { owner_.store(std::thread::id()); }
  void require() const {
    const std::thread::id owner = owner_.load();
    if (owner != std::thread::id() && owner != std::this_thread::get_id()) {
      std::fprintf(stderr, "called on another thread than its own: %s\n", name_);
      std::abort();
    }
  }

 private:
  const char* name_;
  std::atomic<std::thread::id> owner_{};
#else
  void take() {}
  void leave() {}
  void require() const {}
#endif
};

}  // namespace common
