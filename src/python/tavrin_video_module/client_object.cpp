#include "tavrin_video_module/client_object.h"

#include <unistd.h>

#include "tavrin_video_module/callback_bridge.h"
#include "tavrin_video_module/client_methods.h"

namespace {

struct TavrinVideoClientObject {
  PyObject header;
};

MRSessionCallbacks session_callbacks() {
  return {.on_connected = on_session_connected_impl,
          .on_disconnected = on_session_disconnected_impl,
          .on_stream_received = on_stream_received_impl,
          .on_stream_dropped = on_stream_dropped_impl,
          .on_connection_created = on_session_connection_created_impl,
          .on_connection_dropped = on_session_connection_dropped_impl,
          .on_error = on_session_error_impl,
          .on_audio_data = on_session_audio_data_impl,
          .on_ready_to_publish = on_session_ready_to_publish_impl,
          .on_media_buffer_drained = on_session_media_buffer_drained_impl};
}

bool create_controller() {
  bool initialised = false;
  try {
    g_controller_process = getpid();
    g_controller = std::make_unique<MRController>(session_callbacks());
    initialised = MRController::initSntLibrary();
  } catch (const std::exception& error) {
    LOG4CXX_ERROR(logger, "Unexpected failure in the controller: " << error.what());
  }
  if (!initialised) {
    LOG4CXX_ERROR(logger, "Failed to initialize MR library");
    g_controller.reset();
    python_utils::set_error_if_not_present(PyExc_RuntimeError, "Failed to initialize MR library");
  }
  return initialised;
}

PyObject* TavrinVideoClient_new(PyTypeObject* type, PyObject* /*args*/, PyObject* /*kwds*/) {
  if (g_controller != nullptr) {
    LOG4CXX_WARN(logger, "tavrin_video: Trying to create a second instance of TavrinVideoClient");
  } else if (!create_controller()) {
    return nullptr;
  }
  return _PyObject_New(type);
}

void TavrinVideoClient_dealloc(PyObject* self) { PyObject_Free(self); }

template <PyObject* (*Method)(MRController&, PyObject*, PyObject*)>
constexpr PyMethodDef with_keywords(const char* name, const char* doc) {
  PyCFunctionWithKeywords function = method_entry<Method>;
  return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function)),
          METH_VARARGS | METH_KEYWORDS, doc};
}

template <PyObject* (*Method)(MRController&, PyObject*, PyObject*)>
PyMethodDef without_keywords(const char* name, const char* doc) {
  return {name, method_entry_without_keywords<Method>, METH_VARARGS, doc};
}

PyMethodDef TavrinVideoClient_methods[] = {
    with_keywords<sdk_wrapper_connect>("connect", "Connect to a session"),
    without_keywords<sdk_wrapper_disconnect>("disconnect", "Disconnect from a session"),
    with_keywords<sdk_wrapper_subscribe>("subscribe",
                                         "Subscribe to a stream of the connected session"),
    with_keywords<sdk_wrapper_unsubscribe>("unsubscribe",
                                           "Unsubscribe from a stream of the connected session"),
    with_keywords<sdk_wrapper_publish>("publish", "Publish a new stream to the connected session"),
    with_keywords<sdk_wrapper_unpublish>("unpublish",
                                         "Unpublish a stream from the connected session"),
    with_keywords<sdk_wrapper_is_publishing>("is_publishing", "Check if the module is publishing"),
    with_keywords<sdk_wrapper_is_connected>("is_connected",
                                            "Check if the module is connected to a session"),
    with_keywords<sdk_wrapper_get_connection>(
        "get_connection",
        "Get the session connection (the local client's connection). Returns None if not "
        "connected."),
    with_keywords<sdk_wrapper_add_audio>(
        "add_audio", "Add an AudioData object for publishing into the connected session"),
    with_keywords<sdk_wrapper_add_video>(
        "add_video", "Add a VideoFrame object for publishing into the connected session"),
    with_keywords<sdk_wrapper_clear_media_buffers>(
        "clear_media_buffers",
        "Clear all enqueued audio and video data from the publishing buffers"),
    without_keywords<sdk_wrapper_get_media_buffer_stats>(
        "get_media_buffer_stats",
        "Get current media buffer statistics as a MediaBufferStats object"),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyObject* create_client_type() {
  static PyType_Slot slots[] = {
      {Py_tp_doc, const_cast<char*>("TavrinVideoClient objects")},
      {Py_tp_dealloc, reinterpret_cast<void*>(TavrinVideoClient_dealloc)},
      {Py_tp_new, reinterpret_cast<void*>(TavrinVideoClient_new)},
      {Py_tp_methods, TavrinVideoClient_methods},
      {0, nullptr},
  };
  static PyType_Spec spec = {"_tavrin_video.TavrinVideoClient", sizeof(TavrinVideoClientObject), 0,
                             Py_TPFLAGS_DEFAULT, slots};
  return PyType_FromSpec(&spec);
}
