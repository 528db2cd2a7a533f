#pragma once

#include <Python.h>

#include <initializer_list>

#include "python_utils.h"

namespace models {

// One keyword of a call. A null value means that making it has failed.
struct Keyword {
  python_utils::MemberName& name;
  PyObject* value;  // borrowed
};

// Calls `factory`, a class or method, with these keywords in this order and nothing else. Null with
// an exception pending: that of the value that could not be made or of the call, else a
// MemoryError. The caller holds the interpreter lock.
python_utils::PyObjectPtr call_with_keywords(PyObject* factory,
                                             std::initializer_list<Keyword> keywords);

// A `str`; null with the exception pending when the text is not UTF-8.
python_utils::PyObjectPtr create_string(const std::string& text);

// The module `datetime`; null with the exception pending.
python_utils::PyObjectPtr import_datetime();

}  // namespace models
