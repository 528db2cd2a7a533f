#include <utility>

#include "model_serializers/attribute_reader.h"
#include "model_serializers/convert_objects.h"
#include "model_serializers/member_names.h"

namespace models {

namespace {

using python_utils::get_member_value;
using python_utils::MemberName;
using python_utils::PyGILLock;
using python_utils::PyObjectPtr;
using python_utils::set_error_if_not_present;

// An attribute that may be None, which leaves the field absent.
template <class Settings>
bool read_optional(PyObject* object, MemberName& name, bool (*convert)(PyObject*, Settings&),
                   std::optional<Settings>& field) {
  const PyObjectPtr value = get_member_value(object, name);
  if (value == nullptr) return false;
  if (value.get() == Py_None) return true;
  Settings settings;
  if (!convert(value.get(), settings)) return false;
  field = std::move(settings);
  return true;
}

bool read_video_preferences(PyObject* object, MRSubscriberSettings& settings) {
  const PyObjectPtr resolution = get_member_value(object, names::kPreferredResolution);
  if (resolution == nullptr) return false;
  if (resolution.get() != Py_None) {
    VideoResolution preferred;
    if (!convert_video_resolution_from_python(resolution.get(), preferred)) return false;
    settings.preferred_resolution =
        Resolution{static_cast<uint32_t>(preferred.width), static_cast<uint32_t>(preferred.height)};
  }
  const PyObjectPtr framerate = get_member_value(object, names::kPreferredFramerate);
  if (framerate == nullptr) return false;
  if (framerate.get() != Py_None) {
    const long preferred =
        python_utils::enter_python([&] { return PyLong_AsLong(framerate.get()); });
    if (PyErr_Occurred() != nullptr) return false;
    settings.preferred_framerate = static_cast<float>(preferred);
  }
  return true;
}

}  // namespace

bool convert_session_audio_settings_from_python(PyObject* object, SessionAudioSettings& settings) {
  if (!is_given(object, "SessionAudioSettings")) return false;
  const PyGILLock lock;
  return read(object, names::kSampleRate, settings.sample_rate) &&
         read(object, names::kNumberOfChannels, settings.number_of_channels);
}

bool convert_logging_settings_from_python(PyObject* object, LoggingSettings& settings) {
  if (!is_given(object, "LoggingSettings")) return false;
  const PyGILLock lock;
  return read(object, names::kLevel, settings.level);
}

bool convert_video_resolution_from_python(PyObject* object, VideoResolution& resolution) {
  if (!is_given(object, "VideoResolution")) return false;
  const PyGILLock lock;
  return read(object, names::kWidth, resolution.width) &&
         read(object, names::kHeight, resolution.height);
}

bool convert_session_video_publisher_settings_from_python(PyObject* object,
                                                          SessionVideoPublisherSettings& settings) {
  if (!is_given(object, "SessionVideoPublisherSettings")) return false;
  const PyGILLock lock;
  const PyObjectPtr resolution = get_member_value(object, names::kResolution);
  if (resolution == nullptr || resolution.get() == Py_None) {
    set_error_if_not_present(PyExc_AttributeError, "Failed to get resolution attribute");
    return false;
  }
  return convert_video_resolution_from_python(resolution.get(), settings.resolution) &&
         read(object, names::kFps, settings.fps) && read(object, names::kFormat, settings.format);
}

bool convert_session_av_settings_from_python(PyObject* object, SessionAVSettings& settings) {
  if (!is_given(object, "SessionAVSettings")) return false;
  const PyGILLock lock;
  return read_optional(object, names::kAudioPublisher, convert_session_audio_settings_from_python,
                       settings.audio_publisher) &&
         read_optional(object, names::kAudioSubscribersMix,
                       convert_session_audio_settings_from_python,
                       settings.audio_subscribers_mix) &&
         read_optional(object, names::kVideoPublisher,
                       convert_session_video_publisher_settings_from_python,
                       settings.video_publisher);
}

bool convert_session_settings_from_python(PyObject* object, SessionSettings& settings) {
  if (!is_given(object, "SessionSettings")) return false;
  const PyGILLock lock;
  return read(object, names::kEnableMigration, settings.enable_migration) &&
         read_optional(object, names::kAv, convert_session_av_settings_from_python, settings.av) &&
         read_optional(object, names::kLogging, convert_logging_settings_from_python,
                       settings.logging);
}

bool convert_audio_settings_from_python(PyObject* object, bool& stereo, bool& dtx) {
  if (!is_given(object, "PublisherAudioSettings")) return false;
  const PyGILLock lock;
  return read(object, names::kEnableStereoMode, stereo) && read(object, names::kEnableOpusDtx, dtx);
}

bool convert_publisher_settings_from_python(PyObject* object, MRPublisherSettings& settings) {
  if (!is_given(object, "PublisherSettings")) return false;
  const PyGILLock lock;
  if (!read(object, names::kName, settings.name)) return false;
  if (settings.name.empty()) {
    set_error_if_not_present(PyExc_ValueError, "PublisherSettings name cannot be empty");
    return false;
  }
  if (!read(object, names::kHasAudio, settings.has_audio) ||
      !read(object, names::kHasVideo, settings.has_video) ||
      !read(object, names::kEnableCaptions, settings.enable_captions)) {
    return false;
  }
  const PyObjectPtr audio_settings = get_member_value(object, names::kAudioSettings);
  if (audio_settings == nullptr) return false;
  return audio_settings.get() == Py_None ||
         convert_audio_settings_from_python(audio_settings.get(), settings.stereo_audio_mode,
                                            settings.audio_enable_dtx);
}

bool convert_subscriber_settings_from_python(PyObject* object, MRSubscriberSettings& settings) {
  if (object == nullptr || object == Py_None) {
    set_error_if_not_present(PyExc_TypeError, "Subscriber settings cannot be None");
    return false;
  }
  const PyGILLock lock;
  if (!read(object, names::kSubscribeToAudio, settings.wants_audio) ||
      !read(object, names::kSubscribeToVideo, settings.wants_video) ||
      !read(object, names::kSubscribeToCaptions, settings.wants_captions)) {
    return false;
  }
  const PyObjectPtr video_settings = get_member_value(object, names::kVideoSettings);
  if (video_settings == nullptr) return false;
  return video_settings.get() == Py_None || read_video_preferences(video_settings.get(), settings);
}

}  // namespace models
