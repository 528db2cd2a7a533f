#pragma once

#include <Python.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "python_utils.h"
#include "tavrin_video_module/lasting_thread_state.h"
#include "tavrin_video_module/state.h"

// The steps by which every event is delivered to Python.

// An event whose callable is in a slot of its own.
class SlotTarget {
 public:
  explicit SlotTarget(const CallableSlot& slot) : slot_(slot) {}
  bool mayListen() const { return slot_.isSet(); }
  bool isWanted() const { return true; }
  PyObject* callable() const { return slot_.get(); }

 private:
  const CallableSlot& slot_;
};

// An event of a subscription. Looked up anew at each use, since the subscription may end whenever
// the interpreter lock is not held.
class SubscriptionTarget {
 public:
  SubscriptionTarget(const std::string& stream_id, SubscriberEvent event)
      : stream_id_(stream_id), event_(event) {}
  bool mayListen() const { return g_subscriber_callbacks.mayListen(stream_id_, event_); }
  bool isWanted() const { return callable() != nullptr; }
  PyObject* callable() const { return g_subscriber_callbacks.find(stream_id_, event_); }

 private:
  const std::string& stream_id_;
  SubscriberEvent event_;
};

// The objects of one event, as they become the callable's arguments. Under the interpreter lock.
class EventArguments {
 public:
  // Adds the next object. False, with `failure` in the log, when it could not be made.
  bool add(python_utils::PyObjectPtr object, const char* failure);
  // The message and the code of an error.
  bool addError(const std::string& message, int code, const char* failure);

  // The memory behind the view among the arguments; filled by the serialisers.
  python_utils::PyObjectPtr& mediaMemory() { return media_memory_; }

  // Calls the callable, which may be null by now, with the added objects.
  void call(PyObject* callable, std::string_view name);

 private:
  static constexpr std::size_t kMaxArguments = 3;

  python_utils::PyObjectPtr takeTuple();

  std::array<python_utils::PyObjectPtr, kMaxArguments> objects_;
  std::size_t count_ = 0;
  python_utils::PyObjectPtr media_memory_;
};

// Whether the interpreter can be entered; says so in the log if not.
bool may_enter_python(const ExitGate::Pass& pass);

// Delivers one event. `build` fills the EventArguments that it is given, under the interpreter
// lock, and returns whether they are complete.
template <class Target, class Build>
void deliver(const Target& target, std::string_view name, Build&& build) {
  if (!target.mayListen()) return;
  const ExitGate::Pass pass = ExitGate::Pass::toPython(g_exit_gate);
  if (!may_enter_python(pass)) return;
  keep_thread_state();
  const python_utils::PyGILLock lock;
  if (!target.isWanted()) return;
  EventArguments arguments;
  if (build(arguments)) {
    arguments.call(target.callable(), name);
  } else {
    python_utils::clear_exception();  // must not leak into the next event on this thread
  }
}
