#include "model_serializers/convert_objects.h"
#include "model_serializers/create_objects.h"
#include "tavrin_video_module/client_methods.h"

PyObject* sdk_wrapper_add_audio(MRController& controller, PyObject* args, PyObject* kwargs) {
  static const char* const keywords[] = {"audio_data", nullptr};
  PyObject* audio_data = nullptr;
  if (PyArg_ParseTupleAndKeywords(args, kwargs, "O", const_cast<char**>(keywords), &audio_data) ==
      0) {
    LOG4CXX_ERROR(logger, "Failed to parse add_audio() args");
    return nullptr;
  }
  MRAudioData audio(nullptr, 0, 0, 0);
  Py_buffer view;
  if (!models::convert_audio_data_from_python(audio_data, audio, view)) {
    LOG4CXX_ERROR(logger, "Failed to parse MRAudioData");
    return nullptr;
  }
  // The view pins the samples while other Python code runs.
  const bool added = call_unlocked(false, [&] { return controller.addAudio(audio); });
  python_utils::enter_python([&view] { PyBuffer_Release(&view); });
  if (!added) LOG4CXX_WARN(logger, "Failed to inject audio data");
  return python_bool(added);
}

PyObject* sdk_wrapper_add_video(MRController& controller, PyObject* args, PyObject* /*kwargs*/) {
  if (!controller.isRunning()) {
    LOG4CXX_WARN(logger, "Not connected to any session");
    return python_bool(false);
  }
  PyObject* video_frame = nullptr;
  if (PyArg_ParseTuple(args, "O", &video_frame) == 0) return nullptr;
  std::unique_ptr<MRVideoFrame> frame;
  if (!models::convert_video_frame_from_python(video_frame, frame)) {
    python_utils::set_error_if_not_present(PyExc_RuntimeError,
                                           "Failed to deserialize the video_frame");
    return nullptr;
  }
  const bool added = call_unlocked(false, [&] { return controller.addVideo(std::move(frame)); });
  if (!added) LOG4CXX_WARN(logger, "Failed to add video frame");
  return python_bool(added);
}

PyObject* sdk_wrapper_clear_media_buffers(MRController& controller, PyObject* /*args*/,
                                          PyObject* /*kwargs*/) {
  const bool cleared = call_unlocked(false, [&] { return controller.clearMediaBuffers(); });
  if (!cleared) LOG4CXX_ERROR(logger, "Failed to clear the media buffers");
  return python_bool(cleared);
}

PyObject* sdk_wrapper_get_media_buffer_stats(MRController& controller, PyObject* /*args*/,
                                             PyObject* /*kwargs*/) {
  const MediaBufferStats stats =
      call_unlocked(MediaBufferStats(), [&] { return controller.getCurrentBufferStats(); });
  if (stats.audio_stats) {
    LOG4CXX_INFO(logger, "Audio buffer stats: " << stats.audio_stats->duration_millis << " ms.");
  }
  if (stats.video_stats) {
    LOG4CXX_INFO(logger, "Video buffer stats: " << stats.video_stats->duration_millis << " ms.");
  }
  python_utils::PyObjectPtr object =
      models::create_media_buffer_stats_object(stats.audio_stats, stats.video_stats);
  if (object == nullptr) LOG4CXX_ERROR(logger, "Failed to create MediaBufferStats Python object");
  return object.release();
}
