#include <Python.h>

#include "data_models.h"
#include "model_serializers/media_memory.h"
#include "python_utils.h"
#include "support/logs_initializer.h"
#include "support/mr_device_info.h"
#include "tavrin_video_module/client_object.h"
#include "tavrin_video_module/state.h"
#include "tavrin_video_module/statistics_object.h"

using python_utils::PyObjectPtr;

namespace {

PyModuleDef module_definition = {
    PyModuleDef_HEAD_INIT,
    "_tavrin_video",
    "Tavrin Video API Python wrapper",
    -1,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

PyObject* create_module() {
  LogsInitializer::init();
  mr::setWrapperLanguage("python");
  LOG4CXX_TRACE(logger, "PyInit_tavrin_video: Initializing tavrin_video module");
  register_exit_hooks();

  LOG4CXX_TRACE(logger, "PyInit_tavrin_video: Creating TavrinVideoClient type from spec");
  const PyObjectPtr type(create_client_type());
  if (type == nullptr) {
    LOG4CXX_ERROR(logger, "PyInit_tavrin_video: Could not create TavrinVideoClient type");
    return nullptr;  // the importer sees why
  }
  LOG4CXX_TRACE(logger, "PyInit_tavrin_video: TavrinVideoClient type created successfully");

  LOG4CXX_TRACE(logger, "PyInit_tavrin_video: Creating module");
  PyObjectPtr module(PyModule_Create(&module_definition));
  if (module == nullptr) {
    LOG4CXX_ERROR(logger, "PyInit_tavrin_video: Could not create module");
    return nullptr;
  }
  LOG4CXX_TRACE(logger, "PyInit_tavrin_video: Module created successfully");

  // A package that does not fit this module fails the import, with the reason.
  if (models::get_model_classes_instance() == nullptr || !models::init_media_memory()) {
    return nullptr;
  }
  if (PyModule_AddObjectRef(module.get(), "TavrinVideoClient", type.get()) < 0) {
    LOG4CXX_ERROR(logger, "PyInit_tavrin_video: Could not add TavrinVideoClient to module");
    return nullptr;
  }
  const PyObjectPtr statistics = create_statistics_object();
  if (statistics == nullptr ||
      PyModule_AddObjectRef(module.get(), "__statistics__", statistics.get()) < 0) {
    return nullptr;
  }
  LOG4CXX_TRACE(logger, "PyInit_tavrin_video: Module initialized successfully");
  return module.release();
}

}  // namespace

PyMODINIT_FUNC PyInit__tavrin_video(void) {
  try {
    return create_module();
  } catch (const std::exception& error) {
    python_utils::set_error_if_not_present(PyExc_RuntimeError, error.what());
    return nullptr;
  }
}
