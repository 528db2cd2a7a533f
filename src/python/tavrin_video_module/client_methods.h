#pragma once

#include <Python.h>

#include <exception>
#include <new>
#include <utility>

#include "controller/mr_controller.h"
#include "python_utils.h"
#include "tavrin_video_module/state.h"

// The methods of the client. Each is called with the existing controller, which outlives the call,
// and under the interpreter lock. Null with an exception pending for bad input; False, with a line
// in the log, for what was refused.

PyObject* sdk_wrapper_connect(MRController& controller, PyObject* args, PyObject* kwargs);
PyObject* sdk_wrapper_disconnect(MRController& controller, PyObject* args, PyObject* kwargs);
PyObject* sdk_wrapper_is_connected(MRController& controller, PyObject* args, PyObject* kwargs);
PyObject* sdk_wrapper_get_connection(MRController& controller, PyObject* args, PyObject* kwargs);

PyObject* sdk_wrapper_publish(MRController& controller, PyObject* args, PyObject* kwargs);
PyObject* sdk_wrapper_unpublish(MRController& controller, PyObject* args, PyObject* kwargs);
PyObject* sdk_wrapper_is_publishing(MRController& controller, PyObject* args, PyObject* kwargs);
PyObject* sdk_wrapper_subscribe(MRController& controller, PyObject* args, PyObject* kwargs);
PyObject* sdk_wrapper_unsubscribe(MRController& controller, PyObject* args, PyObject* kwargs);

PyObject* sdk_wrapper_add_audio(MRController& controller, PyObject* args, PyObject* kwargs);
PyObject* sdk_wrapper_add_video(MRController& controller, PyObject* args, PyObject* kwargs);
PyObject* sdk_wrapper_clear_media_buffers(MRController& controller, PyObject* args,
                                          PyObject* kwargs);
PyObject* sdk_wrapper_get_media_buffer_stats(MRController& controller, PyObject* args,
                                             PyObject* kwargs);

inline PyObject* python_bool(bool value) { return PyBool_FromLong(value ? 1 : 0); }

// Calls the controller without the interpreter lock, which a callable may need for the call to end.
// A call that throws gives `failed`. The caller's arguments must keep alive what `call` borrows:
// other Python code runs meanwhile.
template <class Result, class Call>
Result call_unlocked(Result failed, Call&& call) {
  // Begins before the lock is released and ends before it is requested again: the controller cannot
  // be destroyed meanwhile, and does not wait for a thread that never gets the lock back.
  ExitGate::Pass pass(g_exit_gate);
  PyThreadState* state = PyEval_SaveThread();
  Result result = std::move(failed);
  try {
    result = call();
  } catch (const std::exception& error) {
    LOG4CXX_ERROR(logger, "Unexpected failure in the controller: " << error.what());
  }
  pass.end();
  python_utils::enter_python([state] { PyEval_RestoreThread(state); });
  return result;
}

// Entry point of a method: without a controller it does nothing, for any arguments.
template <PyObject* (*Method)(MRController&, PyObject*, PyObject*)>
PyObject* method_entry(PyObject* /*self*/, PyObject* args, PyObject* kwargs) {
  try {
    MRController* controller = g_controller.get();
    if (controller == nullptr) {
      LOG4CXX_ERROR(logger, "MRController is not initialized");
      return python_bool(false);
    }
    return Method(*controller, args, kwargs);
  } catch (const std::bad_alloc&) {
    return PyErr_NoMemory();
  } catch (const std::exception& error) {
    python_utils::set_error_if_not_present(PyExc_RuntimeError, error.what());
    return nullptr;
  }
}

template <PyObject* (*Method)(MRController&, PyObject*, PyObject*)>
PyObject* method_entry_without_keywords(PyObject* self, PyObject* args) {
  return method_entry<Method>(self, args, nullptr);
}
