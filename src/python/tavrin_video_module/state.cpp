#include "tavrin_video_module/state.h"

#include <unistd.h>

#include <chrono>

#include "support/logger.h"

using namespace std::chrono_literals;

namespace {

constexpr std::chrono::milliseconds kExitTimeout = 5s;

PyObject* on_interpreter_exit(PyObject* /*self*/, PyObject* /*args*/) {
  close_bridge();
  return Py_NewRef(Py_None);
}

void register_atexit_hook() {
  static PyMethodDef hook = {"_close_bridge", on_interpreter_exit, METH_NOARGS, nullptr};
  const python_utils::PyObjectPtr atexit(PyImport_ImportModule("atexit"));
  const python_utils::PyObjectPtr function(PyCFunction_New(&hook, nullptr));
  if (atexit != nullptr && function != nullptr) {
    const python_utils::PyObjectPtr result(
        PyObject_CallMethod(atexit.get(), "register", "O", function.get()));
  }
  PyErr_Clear();
}

// A thread did not leave Python in time, and now never will.
bool bridge_is_stuck = false;

// Destroys the controller, or leaks it for the rest of the process.
void end_controller() {
  MRController* controller = g_controller.release();
  if (controller == nullptr || getpid() != g_controller_process) return;
  g_exit_gate.close();
  if (g_exit_gate.waitUntilEmpty(bridge_is_stuck ? 0s : kExitTimeout)) delete controller;
}

// Declared after g_controller, and so destroyed before it.
struct LastResort {
  ~LastResort() { end_controller(); }
};

}  // namespace

const log4cxx::LoggerPtr& logger = lastingLogger("TavrinVideoClient");

ExitGate& g_exit_gate = *new ExitGate;

constinit CallableSlot g_on_error_cb;
constinit CallableSlot g_on_connected_cb;
constinit CallableSlot g_on_disconnected_cb;
constinit CallableSlot g_on_connection_created_cb;
constinit CallableSlot g_on_connection_dropped_cb;
constinit CallableSlot g_on_stream_received_cb;
constinit CallableSlot g_on_stream_dropped_cb;
constinit CallableSlot g_on_audio_data_cb;
constinit CallableSlot g_on_ready_for_audio_cb;
constinit CallableSlot g_on_media_buffer_drained_cb;
SubscriberCallables& g_subscriber_callbacks = *new SubscriberCallables;
constinit PublisherCallbacks g_publisher_callbacks;

constinit std::atomic<uint64_t> g_escaped_views{0};

std::unique_ptr<MRController> g_controller;
constinit pid_t g_controller_process = 0;

static const LastResort last_resort;

void register_exit_hooks() {
  static bool registered = false;
  if (!registered) {
    registered = true;
    Py_AtExit(tavrin_video_cleanup);
    register_atexit_hook();
  }
}

void close_bridge() {
  if (g_controller != nullptr && getpid() != g_controller_process) return;
  g_exit_gate.close();
  PyThreadState* state = PyEval_SaveThread();
  bridge_is_stuck = !g_exit_gate.waitUntilEmpty(kExitTimeout);
  PyEval_RestoreThread(state);
}

void tavrin_video_cleanup() {
  LOG4CXX_TRACE(logger, "tavrin_video: Python is exiting. Destroy the controller");
  end_controller();
  LOG4CXX_TRACE(logger, "tavrin_video: Cleaned up in python exit function");
}
