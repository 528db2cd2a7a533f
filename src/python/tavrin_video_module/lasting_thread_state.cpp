#include "tavrin_video_module/lasting_thread_state.h"

#include <Python.h>

#include "python_utils.h"
#include "tavrin_video_module/state.h"

namespace {

class LastingThreadState {
 public:
  LastingThreadState() = default;
  LastingThreadState(const LastingThreadState&) = delete;
  LastingThreadState& operator=(const LastingThreadState&) = delete;

  ~LastingThreadState() {
    if (state_ == nullptr) return;
    const ExitGate::Pass pass = ExitGate::Pass::toPython(g_exit_gate);
    if (pass.isOpen() && Py_IsInitialized() != 0) {
      python_utils::enter_python([this] {
        PyEval_RestoreThread(state_);
        PyGILState_Release(PyGILState_UNLOCKED);  // the balance of `keep`
      });
    }
  }

  void keep() {
    if (state_ == nullptr && PyGILState_GetThisThreadState() == nullptr) {
      python_utils::enter_python([] { PyGILState_Ensure(); });
      state_ = PyEval_SaveThread();
    }
  }

 private:
  PyThreadState* state_ = nullptr;
};

}  // namespace

void keep_thread_state() {
  thread_local LastingThreadState state;
  state.keep();
}
