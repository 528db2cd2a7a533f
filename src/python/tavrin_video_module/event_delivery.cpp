#include "tavrin_video_module/event_delivery.h"

#include <cstring>
#include <utility>

#include "model_serializers/media_memory.h"

using python_utils::PyObjectPtr;

bool EventArguments::add(PyObjectPtr object, const char* failure) {
  if (object == nullptr) {
    LOG4CXX_ERROR(logger, failure);
    return false;
  }
  objects_[count_++] = std::move(object);
  return true;
}

bool EventArguments::addError(const std::string& message, int code, const char* failure) {
  const char* text = message.c_str();
  const auto length = static_cast<Py_ssize_t>(std::strlen(text));
  return add(PyObjectPtr(PyUnicode_DecodeUTF8(text, length, "replace")), failure) &&
         add(PyObjectPtr(PyLong_FromLong(code)), failure);
}

PyObjectPtr EventArguments::takeTuple() {
  PyObjectPtr tuple(
      python_utils::enter_python([this] { return PyTuple_New(static_cast<Py_ssize_t>(count_)); }));
  for (std::size_t i = 0; tuple != nullptr && i < count_; ++i) {
    PyTuple_SetItem(tuple.get(), static_cast<Py_ssize_t>(i), objects_[i].release());
  }
  return tuple;
}

void EventArguments::call(PyObject* callable, std::string_view name) {
  // A reference of our own: the callable may end the subscription or session that holds it.
  const PyObjectPtr held = python_utils::new_reference(callable);
  PyObjectPtr tuple = takeTuple();
  PyObjectPtr result;
  if (tuple != nullptr) {
    PyObject* args = tuple.get();
    const bool callable_now = callable != nullptr && PyCallable_Check(callable) != 0;
    if (callable_now) {
      args = tuple.release();  // taken over by the call
    }
    result = python_utils::call_python_object_with_gil(callable, args, name);
  }
  if (result == nullptr) LOG4CXX_ERROR(logger, "Failed to call " << name << " callback");
  if (models::is_referenced_elsewhere(media_memory_)) {
    g_escaped_views.fetch_add(1, std::memory_order_relaxed);
  }
}

bool may_enter_python(const ExitGate::Pass& pass) {
  if (pass.isOpen() && Py_IsInitialized() != 0) return true;
  LOG4CXX_WARN(logger, "Python is finalizing, operation skipped");
  return false;
}
