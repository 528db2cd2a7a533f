#pragma once

#include <Python.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "python_utils.h"

// Containers of the program's callables. Dropping a callable may run any Python code, which may
// call back into these containers. So every operation here returns the references that it replaced,
// for the caller to drop when it has finished.

// A callable, or nothing. Changed under the interpreter lock only.
class CallableSlot {
 public:
  constexpr CallableSlot() = default;

  // Any thread, with no lock: whether it is worth taking the interpreter lock.
  bool isSet() const { return callable_.load(std::memory_order_acquire) != nullptr; }
  // Borrowed; null when empty. Under the interpreter lock.
  PyObject* get() const { return callable_.load(std::memory_order_acquire); }
  // Stores the program's argument, which may be null, if it is callable; returns the old value.
  [[nodiscard]] python_utils::PyObjectPtr exchange(PyObject* given);

 private:
  std::atomic<PyObject*> callable_{nullptr};
};

// A new reference to the program's argument; null if it is not callable.
python_utils::PyObjectPtr take_callable(PyObject* given);

// The callables of the one publisher.
struct PublisherCallbacks {
  CallableSlot on_error_cb;
  CallableSlot on_stream_created_cb;
  CallableSlot on_stream_destroyed_cb;
};

// The callables of one subscription, in the order in which they are given and dropped.
enum class SubscriberEvent : std::size_t {
  kError,
  kConnected,
  kDisconnected,
  kAudioData,
  kRenderFrame,
  kCaptionText,
};
inline constexpr std::size_t kSubscriberEvents = 6;
using SubscriberCallbacks = std::array<python_utils::PyObjectPtr, kSubscriberEvents>;

using SubscriberCallbacksMap = std::unordered_map<std::string, SubscriberCallbacks>;

// The callables of all subscriptions, by stream id. Everything but `mayListen` under the
// interpreter lock.
class SubscriberCallables {
 public:
  // Any thread, with no lock. False: nothing listens to that event of that stream. True may be due
  // to another stream's listener.
  bool mayListen(const std::string& stream_id, SubscriberEvent event) const;
  // Borrowed; null without a listener.
  PyObject* find(const std::string& stream_id, SubscriberEvent event) const;

  [[nodiscard]] SubscriberCallbacks exchange(const std::string& stream_id,
                                             SubscriberCallbacks&& callbacks);
  [[nodiscard]] SubscriberCallbacks remove(const std::string& stream_id);
  [[nodiscard]] SubscriberCallbacksMap removeAll();

 private:
  // The number of listeners to each of the six events of the streams that share a bucket, so that
  // media without a listener cost one load, even while the map changes.
  static constexpr std::size_t kBuckets = 256;
  using Bucket = std::array<std::atomic<uint32_t>, kSubscriberEvents>;

  static std::size_t bucketOf(const std::string& stream_id);
  void countListeners(const std::string& stream_id, const SubscriberCallbacks& callbacks,
                      uint32_t change);

  SubscriberCallbacksMap entries_;
  std::array<Bucket, kBuckets> listeners_{};
};

// Stores the given callables in the slots and returns the old ones, in order.
template <std::size_t Count>
[[nodiscard]] std::array<python_utils::PyObjectPtr, Count> exchange_callables(
    const std::array<CallableSlot*, Count>& slots, const std::array<PyObject*, Count>& given) {
  std::array<python_utils::PyObjectPtr, Count> replaced;
  for (std::size_t i = 0; i < Count; ++i) replaced[i] = slots[i]->exchange(given[i]);
  return replaced;
}

// From the first to the last.
template <std::size_t Count>
void drop_in_order(std::array<python_utils::PyObjectPtr, Count>& references) {
  for (python_utils::PyObjectPtr& reference : references) reference.reset();
}
