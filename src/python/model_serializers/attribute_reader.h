#pragma once

#include <Python.h>

#include <string>

#include "python_utils.h"

namespace models {

// Read one attribute into a field. False with the exception pending, and the field untouched.
bool read(PyObject* object, python_utils::MemberName& name, std::string& field);
bool read(PyObject* object, python_utils::MemberName& name, bool& field);
bool read(PyObject* object, python_utils::MemberName& name, int& field);

// False for null and None, with an exception that names the expected class.
bool is_given(PyObject* object, const char* class_name);

}  // namespace models
