#include "tavrin_video_module/statistics_object.h"

#include "tavrin_video_module/state.h"

namespace {

PyObject* escaped_views(PyObject* /*self*/, void* /*closure*/) {
  return PyLong_FromUnsignedLongLong(g_escaped_views.load(std::memory_order_relaxed));
}

PyGetSetDef attributes[] = {
    {"escaped_views", escaped_views, nullptr,
     "Audio blocks and frames of which a program still had a view when its callable returned.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>("Counters of the process.")},
    {Py_tp_getset, attributes},
    {0, nullptr},
};

PyType_Spec spec = {"_tavrin_video._Statistics", 0, 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION, slots};

}  // namespace

python_utils::PyObjectPtr create_statistics_object() {
  const python_utils::PyObjectPtr type(PyType_FromSpec(&spec));
  if (type == nullptr) return nullptr;
  return python_utils::PyObjectPtr(
      PyType_GenericAlloc(reinterpret_cast<PyTypeObject*>(type.get()), 0));
}
