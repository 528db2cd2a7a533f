#include "tavrin_video_module/callables.h"

#include <functional>
#include <utility>

using python_utils::PyObjectPtr;

PyObjectPtr take_callable(PyObject* given) {
  const bool callable = given != nullptr && PyCallable_Check(given) != 0;
  return python_utils::new_reference(callable ? given : nullptr);
}

PyObjectPtr CallableSlot::exchange(PyObject* given) {
  return PyObjectPtr(callable_.exchange(take_callable(given).release(), std::memory_order_acq_rel));
}

bool SubscriberCallables::mayListen(const std::string& stream_id, SubscriberEvent event) const {
  const Bucket& bucket = listeners_[bucketOf(stream_id)];
  return bucket[static_cast<std::size_t>(event)].load(std::memory_order_acquire) != 0;
}

PyObject* SubscriberCallables::find(const std::string& stream_id, SubscriberEvent event) const {
  const auto entry = entries_.find(stream_id);
  return entry == entries_.end() ? nullptr : entry->second[static_cast<std::size_t>(event)].get();
}

SubscriberCallbacks SubscriberCallables::exchange(const std::string& stream_id,
                                                  SubscriberCallbacks&& callbacks) {
  SubscriberCallbacks& entry = entries_[stream_id];
  std::swap(entry, callbacks);
  countListeners(stream_id, entry, 1);
  countListeners(stream_id, callbacks, -1U);
  return std::move(callbacks);
}

SubscriberCallbacks SubscriberCallables::remove(const std::string& stream_id) {
  auto node = entries_.extract(stream_id);
  if (node.empty()) {
    return {};
  }
  countListeners(stream_id, node.mapped(), -1U);
  return std::move(node.mapped());
}

SubscriberCallbacksMap SubscriberCallables::removeAll() {
  SubscriberCallbacksMap removed;
  removed.swap(entries_);
  for (const auto& [stream_id, callbacks] : removed) countListeners(stream_id, callbacks, -1U);
  return removed;
}

std::size_t SubscriberCallables::bucketOf(const std::string& stream_id) {
  return std::hash<std::string>()(stream_id) % kBuckets;
}

void SubscriberCallables::countListeners(const std::string& stream_id,
                                         const SubscriberCallbacks& callbacks, uint32_t change) {
  Bucket& bucket = listeners_[bucketOf(stream_id)];
  for (std::size_t i = 0; i < kSubscriberEvents; ++i) {
    if (callbacks[i] != nullptr) bucket[i].fetch_add(change, std::memory_order_release);
  }
}
