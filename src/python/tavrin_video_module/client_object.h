#pragma once

#include <Python.h>

// The type `TavrinVideoClient`, as a new reference; null with the exception pending.
PyObject* create_client_type();
