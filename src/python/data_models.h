#pragma once

#include <Python.h>

#include <memory>
#include <vector>

#include "python_utils.h"

// The Python classes of the records that cross the boundary, defined in
// `tavrin_media_relay.models`. Looked up once, at import, and referenced until the process ends.
//
// The caller holds the interpreter lock, except for `load_models_module`, which takes it itself.
namespace models {

// Each member holds a strong reference that is never given back, or is null.
struct ModelClasses {
  PyObject* Session = nullptr;
  PyObject* Connection = nullptr;
  PyObject* Stream = nullptr;
  PyObject* Subscriber = nullptr;
  PyObject* Publisher = nullptr;
  PyObject* AudioData = nullptr;
  PyObject* VideoFrame = nullptr;
  PyObject* VideoResolution = nullptr;
  PyObject* SessionAudioSettings = nullptr;
  PyObject* LoggingSettings = nullptr;
  PyObject* SessionSettings = nullptr;
  PyObject* PublisherAudioSettings = nullptr;
  PyObject* PublisherSettings = nullptr;
  PyObject* SessionVideoPublisherSettings = nullptr;
  PyObject* SessionAVSettings = nullptr;
  PyObject* AudioBufferStats = nullptr;
  PyObject* VideoBufferStats = nullptr;
  PyObject* MediaBufferStats = nullptr;
  PyObject* SubscriberVideoSettings = nullptr;
  PyObject* SubscriberSettings = nullptr;
  PyObject* CaptionsData = nullptr;

  // Whether every class was found.
  bool isValid() const;
  // Borrowed, in the order of declaration.
  std::vector<PyObject*> toList() const;
};

// Null when the import fails, with its exception pending. Any thread.
python_utils::PyObjectPtr load_models_module();

// All null for a null module. A name that is not a class stays null; a missing one ends the search,
// with its AttributeError pending.
ModelClasses get_all_model_classes(PyObject* module);

// The table, loaded at the first call. Null when loading fails, with an exception pending; the next
// call then tries again.
std::shared_ptr<ModelClasses> get_model_classes_instance();

// The classes, borrowed. Null with an ImportError pending when the table could not be loaded. The
// table must be loaded before the first call, which must not be the one that imports.
PyObject* get_session_class();
PyObject* get_connection_class();
PyObject* get_stream_class();
PyObject* get_subscriber_class();
PyObject* get_publisher_class();
PyObject* get_audio_data_class();
PyObject* get_session_audio_settings_class();
PyObject* get_video_frame_class();
PyObject* get_video_resolution_class();
PyObject* get_logging_settings_class();
PyObject* get_session_settings_class();
PyObject* get_publisher_audio_settings_class();
PyObject* get_publisher_settings_class();
PyObject* get_session_video_publisher_settings_class();
PyObject* get_session_av_settings_class();
PyObject* get_audio_buffer_stats_class();
PyObject* get_video_buffer_stats_class();
PyObject* get_media_buffer_stats_class();
PyObject* get_subscriber_video_settings_class();
PyObject* get_subscriber_settings_class();
PyObject* get_captions_data_class();

}  // namespace models
