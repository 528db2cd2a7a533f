#pragma once

#include <functional>
#include <memory>

namespace sarnet {

// A thread that runs tasks one at a time, in the order posted. Any thread may call anything. The
// thread belongs to the ThreadKeeper and ends after close().
class Strand {
 public:
  // While one exists no task starts, so that an event that a call triggers comes after the call. On
  // the strand's own thread it does nothing: no task can start there before the call returns.
  class Hold {
   public:
    explicit Hold(Strand& strand);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    Strand& strand_;
  };

  // Throws std::system_error when no thread can be made.
  explicit Strand(const char* name);
  ~Strand();

  // Dropped after close().
  void post(std::function<void()> task);
  // No further task starts; what is queued is dropped. Does not wait for the one that runs.
  void close();

 private:
  struct State;
  static void run(State& state);

  std::shared_ptr<State> state_;
};

}  // namespace sarnet
