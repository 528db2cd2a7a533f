#include "data_models.h"

#include <algorithm>
#include <array>
#include <string>

#include "support/logger.h"

namespace models {

namespace {

using python_utils::PyObjectPtr;
using python_utils::set_error_if_not_present;

const log4cxx::LoggerPtr& logger = lastingLogger("DataModels");

using ClassMember = PyObject* ModelClasses::*;

struct NamedClass {
  const char* name;
  ClassMember member;
};

constexpr std::array<NamedClass, 21> kModelClasses{{
    {"Session", &ModelClasses::Session},
    {"Connection", &ModelClasses::Connection},
    {"Stream", &ModelClasses::Stream},
    {"Subscriber", &ModelClasses::Subscriber},
    {"Publisher", &ModelClasses::Publisher},
    {"AudioData", &ModelClasses::AudioData},
    {"VideoFrame", &ModelClasses::VideoFrame},
    {"VideoResolution", &ModelClasses::VideoResolution},
    {"SessionAudioSettings", &ModelClasses::SessionAudioSettings},
    {"LoggingSettings", &ModelClasses::LoggingSettings},
    {"SessionSettings", &ModelClasses::SessionSettings},
    {"PublisherAudioSettings", &ModelClasses::PublisherAudioSettings},
    {"PublisherSettings", &ModelClasses::PublisherSettings},
    {"SessionVideoPublisherSettings", &ModelClasses::SessionVideoPublisherSettings},
    {"SessionAVSettings", &ModelClasses::SessionAVSettings},
    {"AudioBufferStats", &ModelClasses::AudioBufferStats},
    {"VideoBufferStats", &ModelClasses::VideoBufferStats},
    {"MediaBufferStats", &ModelClasses::MediaBufferStats},
    {"SubscriberVideoSettings", &ModelClasses::SubscriberVideoSettings},
    {"SubscriberSettings", &ModelClasses::SubscriberSettings},
    {"CaptionsData", &ModelClasses::CaptionsData},
}};

PyObject* get_model_class(ClassMember member, const char* name) {
  static const std::shared_ptr<ModelClasses> model_classes = get_model_classes_instance();
  if (model_classes != nullptr) return (*model_classes).*member;
  const std::string message = std::string("Model ") + name + " class is not found";
  set_error_if_not_present(PyExc_ImportError, message.c_str());
  LOG4CXX_ERROR(logger, message);
  return nullptr;
}

}  // namespace

bool ModelClasses::isValid() const {
  return std::all_of(kModelClasses.begin(), kModelClasses.end(),
                     [this](const NamedClass& named) { return this->*named.member != nullptr; });
}

std::vector<PyObject*> ModelClasses::toList() const {
  std::vector<PyObject*> classes;
  classes.reserve(kModelClasses.size());
  for (const NamedClass& named : kModelClasses) classes.push_back(this->*named.member);
  return classes;
}

PyObjectPtr load_models_module() {
  const python_utils::PyGILLock lock;
  const PyObjectPtr importlib(PyImport_ImportModule("importlib"));
  if (importlib == nullptr) return nullptr;
  const PyObjectPtr import_module(PyObject_GetAttrString(importlib.get(), "import_module"));
  if (import_module == nullptr) return nullptr;
  const PyObjectPtr name(PyUnicode_FromString("tavrin_media_relay.models"));
  if (name == nullptr) return nullptr;
  const PyObjectPtr args(PyTuple_Pack(1, name.get()));
  if (args == nullptr) return nullptr;
  return PyObjectPtr(python_utils::enter_python(
      [&] { return PyObject_CallObject(import_module.get(), args.get()); }));
}

ModelClasses get_all_model_classes(PyObject* module) {
  ModelClasses classes;
  if (module == nullptr) return classes;
  for (const NamedClass& named : kModelClasses) {
    PyObjectPtr found(PyObject_GetAttrString(module, named.name));
    if (found == nullptr) break;
    if (PyType_Check(found.get())) classes.*named.member = found.release();
  }
  return classes;
}

std::shared_ptr<ModelClasses> get_model_classes_instance() {
  static std::shared_ptr<ModelClasses> model_classes;
  if (model_classes != nullptr) return model_classes;
  const PyObjectPtr module = load_models_module();
  if (module == nullptr) {
    set_error_if_not_present(PyExc_ModuleNotFoundError, "Failed to load models module");
    LOG4CXX_ERROR(logger, "Failed to load models module");
    return nullptr;
  }
  auto loaded = std::make_shared<ModelClasses>(get_all_model_classes(module.get()));
  if (!loaded->isValid()) {
    set_error_if_not_present(PyExc_ImportError, "Model classes are not valid");
    LOG4CXX_ERROR(logger, "Model classes are not valid");
    return nullptr;
  }
  model_classes = std::move(loaded);
  return model_classes;
}

PyObject* get_session_class() { return get_model_class(&ModelClasses::Session, "Session"); }
PyObject* get_connection_class() {
  return get_model_class(&ModelClasses::Connection, "Connection");
}
PyObject* get_stream_class() { return get_model_class(&ModelClasses::Stream, "Stream"); }
PyObject* get_subscriber_class() {
  return get_model_class(&ModelClasses::Subscriber, "Subscriber");
}
PyObject* get_publisher_class() { return get_model_class(&ModelClasses::Publisher, "Publisher"); }
PyObject* get_audio_data_class() { return get_model_class(&ModelClasses::AudioData, "AudioData"); }
PyObject* get_session_audio_settings_class() {
  return get_model_class(&ModelClasses::SessionAudioSettings, "SessionAudioSettings");
}
PyObject* get_video_frame_class() {
  return get_model_class(&ModelClasses::VideoFrame, "VideoFrame");
}
PyObject* get_video_resolution_class() {
  return get_model_class(&ModelClasses::VideoResolution, "VideoResolution");
}
PyObject* get_logging_settings_class() {
  return get_model_class(&ModelClasses::LoggingSettings, "LoggingSettings");
}
PyObject* get_session_settings_class() {
  return get_model_class(&ModelClasses::SessionSettings, "SessionSettings");
}
PyObject* get_publisher_audio_settings_class() {
  return get_model_class(&ModelClasses::PublisherAudioSettings, "PublisherAudioSettings");
}
PyObject* get_publisher_settings_class() {
  return get_model_class(&ModelClasses::PublisherSettings, "PublisherSettings");
}
PyObject* get_session_video_publisher_settings_class() {
  return get_model_class(&ModelClasses::SessionVideoPublisherSettings, "PublisherAudioSettings");
}
PyObject* get_session_av_settings_class() {
  return get_model_class(&ModelClasses::SessionAVSettings, "SessionAVSettings");
}
PyObject* get_audio_buffer_stats_class() {
  return get_model_class(&ModelClasses::AudioBufferStats, "AudioBufferStats");
}
PyObject* get_video_buffer_stats_class() {
  return get_model_class(&ModelClasses::VideoBufferStats, "VideoBufferStats");
}
PyObject* get_media_buffer_stats_class() {
  return get_model_class(&ModelClasses::MediaBufferStats, "MediaBufferStats");
}
PyObject* get_subscriber_video_settings_class() {
  return get_model_class(&ModelClasses::SubscriberVideoSettings, "SubscriberVideoSettings");
}
PyObject* get_subscriber_settings_class() {
  return get_model_class(&ModelClasses::SubscriberSettings, "SubscriberSettings");
}
PyObject* get_captions_data_class() {
  return get_model_class(&ModelClasses::CaptionsData, "CaptionsData");
}

}  // namespace models
