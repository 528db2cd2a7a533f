#include "model_serializers/attribute_reader.h"

#include <optional>
#include <utility>

namespace models {

using python_utils::MemberName;
using python_utils::set_error_if_not_present;

bool read(PyObject* object, MemberName& name, std::string& field) {
  std::optional<std::string> value = python_utils::get_member_value_as_string(object, name);
  if (!value) return false;
  field = *std::move(value);
  return true;
}

bool read(PyObject* object, MemberName& name, bool& field) {
  const std::optional<bool> value = python_utils::get_member_value_as_boolean(object, name);
  field = value.value_or(field);
  return value.has_value();
}

bool read(PyObject* object, MemberName& name, int& field) {
  const std::optional<long> value = python_utils::get_member_value_as_long(object, name);
  if (value) field = static_cast<int>(*value);
  return value.has_value();
}

bool is_given(PyObject* object, const char* class_name) {
  const std::string subject = std::string("Python ") + class_name;
  if (object == nullptr) {
    set_error_if_not_present(PyExc_ValueError, (subject + " object is null").c_str());
    return false;
  }
  if (object == Py_None) {
    set_error_if_not_present(PyExc_TypeError, (subject + " object is None").c_str());
    return false;
  }
  return true;
}

}  // namespace models
