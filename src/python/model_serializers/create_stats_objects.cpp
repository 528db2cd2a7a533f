#include "data_models.h"
#include "model_serializers/create_objects.h"
#include "model_serializers/member_names.h"
#include "model_serializers/model_builder.h"
#include "model_serializers/serializer_logger.h"

namespace models {

namespace {

using python_utils::PyGILLock;
using python_utils::set_error_if_not_present;

PyObjectPtr create_timedelta(int64_t milliseconds) {
  const PyObjectPtr module = import_datetime();
  if (module == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to import datetime module");
    return nullptr;
  }
  const PyObjectPtr timedelta = python_utils::get_attribute(module.get(), names::kTimedelta);
  if (timedelta == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get timedelta class");
    return nullptr;
  }
  const PyObjectPtr value(PyFloat_FromDouble(static_cast<double>(milliseconds)));
  if (value == nullptr) {
    set_error_if_not_present(PyExc_MemoryError, "Failed to create timedelta objects");
    return nullptr;
  }
  PyObjectPtr duration = call_with_keywords(timedelta.get(), {{names::kMilliseconds, value.get()}});
  if (duration == nullptr) LOG4CXX_ERROR(serializer_logger, "Failed to create timedelta object");
  return duration;
}

PyObjectPtr create_buffer_stats_object(PyObject* stats_class, const BufferStats& stats) {
  const PyObjectPtr duration = create_timedelta(stats.duration_millis);
  if (duration == nullptr) return nullptr;
  return call_with_keywords(stats_class, {{names::kDuration, duration.get()}});
}

}  // namespace

PyObjectPtr create_audio_buffer_stats_object(const AudioBufferStats& stats) {
  const PyGILLock lock;
  PyObject* stats_class = get_audio_buffer_stats_class();
  if (stats_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get AudioBufferStats type");
    return nullptr;
  }
  return create_buffer_stats_object(stats_class, stats);
}

PyObjectPtr create_video_buffer_stats_object(const VideoBufferStats& stats) {
  const PyGILLock lock;
  PyObject* stats_class = get_video_buffer_stats_class();
  if (stats_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get VideoBufferStats type");
    return nullptr;
  }
  return create_buffer_stats_object(stats_class, stats);
}

PyObjectPtr create_media_buffer_stats_object(const std::optional<AudioBufferStats>& audio,
                                             const std::optional<VideoBufferStats>& video) {
  const PyGILLock lock;
  PyObject* stats_class = get_media_buffer_stats_class();
  if (stats_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get MediaBufferStats type");
    return nullptr;
  }
  PyObjectPtr audio_stats;
  if (audio) {
    audio_stats = create_audio_buffer_stats_object(*audio);
    if (audio_stats == nullptr) {
      LOG4CXX_ERROR(serializer_logger, "Failed to create AudioBufferStats object");
      return nullptr;
    }
  }
  PyObjectPtr video_stats;
  if (video) {
    video_stats = create_video_buffer_stats_object(*video);
    if (video_stats == nullptr) {
      LOG4CXX_ERROR(serializer_logger, "Failed to create VideoBufferStats object");
      return nullptr;
    }
  }
  if (audio && video) {
    return call_with_keywords(
        stats_class, {{names::kAudio, audio_stats.get()}, {names::kVideo, video_stats.get()}});
  }
  if (audio) {
    return call_with_keywords(stats_class, {{names::kAudio, audio_stats.get()}});
  }
  if (video) {
    return call_with_keywords(stats_class, {{names::kVideo, video_stats.get()}});
  }
  return call_with_keywords(stats_class, {});
}

}  // namespace models
