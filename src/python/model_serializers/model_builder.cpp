#include "model_serializers/model_builder.h"

#include "model_serializers/member_names.h"

namespace models {

using python_utils::enter_python;
using python_utils::PyObjectPtr;
using python_utils::set_error_if_not_present;

PyObjectPtr call_with_keywords(PyObject* factory, std::initializer_list<Keyword> keywords) {
  const PyObjectPtr args(enter_python([] { return PyTuple_New(0); }));
  const PyObjectPtr kwargs(enter_python([] { return PyDict_New(); }));
  bool complete = args != nullptr && kwargs != nullptr;
  for (const Keyword& keyword : keywords) {
    complete = complete && keyword.value != nullptr && keyword.name.object() != nullptr &&
               PyDict_SetItem(kwargs.get(), keyword.name.object(), keyword.value) == 0;
  }
  PyObjectPtr result;
  if (complete) {
    result.reset(enter_python([&] { return PyObject_Call(factory, args.get(), kwargs.get()); }));
  }
  if (result == nullptr) {
    set_error_if_not_present(PyExc_MemoryError, "Failed to create Python objects");
  }
  return result;
}

PyObjectPtr create_string(const std::string& text) {
  return PyObjectPtr(PyUnicode_FromString(text.c_str()));
}

PyObjectPtr import_datetime() {
  // Looks up the loaded module first: an import costs as much as a whole model object.
  PyObject* name = names::kDatetime.object();
  PyObjectPtr module(name == nullptr ? nullptr : PyImport_GetModule(name));
  if (module == nullptr || module.get() == Py_None) {
    python_utils::clear_exception();
    module.reset(enter_python([] { return PyImport_ImportModule("datetime"); }));
  }
  return module;
}

}  // namespace models
