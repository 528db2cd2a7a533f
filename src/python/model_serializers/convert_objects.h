#pragma once

#include <Python.h>

#include <memory>

#include "media/mr_audio_data.h"
#include "media/mr_video_frame.h"
#include "model_serializers/settings_records.h"
#include "session/mr_connection.h"
#include "session/mr_publisher.h"
#include "session/mr_stream.h"
#include "session/mr_subscriber.h"

// Native records from Python objects. Any object with the attributes is accepted; they are read in
// the order listed here, and integers are cut to 32 bits. On the Python caller's thread, under the
// interpreter lock. False with a Python exception pending, and then the record may be partly
// filled.
namespace models {

bool convert_session_audio_settings_from_python(PyObject* object, SessionAudioSettings& settings);
bool convert_logging_settings_from_python(PyObject* object, LoggingSettings& settings);
bool convert_video_resolution_from_python(PyObject* object, VideoResolution& resolution);
bool convert_session_video_publisher_settings_from_python(PyObject* object,
                                                          SessionVideoPublisherSettings& settings);
bool convert_session_av_settings_from_python(PyObject* object, SessionAVSettings& settings);
bool convert_session_settings_from_python(PyObject* object, SessionSettings& settings);

bool convert_audio_settings_from_python(PyObject* object, bool& stereo, bool& dtx);
// `audio_settings` may be None.
bool convert_publisher_settings_from_python(PyObject* object, MRPublisherSettings& settings);
// `video_settings` may be None, and so may each of its preferences.
bool convert_subscriber_settings_from_python(PyObject* object, MRSubscriberSettings& settings);

// `creation_time` is anything whose `timestamp()` gives a float; milliseconds are truncated.
bool convert_connection_from_python(PyObject* object, MRConnectionInfo& info);
bool convert_stream_from_python(PyObject* object, MRStreamInfo& info);

// Copies nothing: on success `view` holds the memory in place until the caller releases it. False
// when the counts exceed the buffer.
bool convert_audio_data_from_python(PyObject* object, MRAudioData& audio, Py_buffer& view);
// Copies the pixels; false also when the buffer is too short for the picture. When the frame itself
// could not be made, no exception is pending.
bool convert_video_frame_from_python(PyObject* object, std::unique_ptr<MRVideoFrame>& frame);

}  // namespace models
