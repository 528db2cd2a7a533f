#include "python_utils.h"

#include <unistd.h>

#include "support/logger.h"

namespace python_utils {

namespace {

const log4cxx::LoggerPtr& logger = lastingLogger("PythonHelpers");

std::string concat(std::string_view before, std::string_view name, std::string_view after) {
  std::string text;
  text.reserve(before.size() + name.size() + after.size());
  return text.append(before).append(name).append(after);
}

Py_buffer construct_py_buffer(const void* data, std::size_t bytes, Py_ssize_t item_size,
                              const char* format) {
  Py_buffer buffer{};
  buffer.buf = const_cast<void*>(data);
  buffer.len = static_cast<Py_ssize_t>(bytes);
  buffer.itemsize = item_size;
  buffer.readonly = 1;
  buffer.ndim = 1;
  buffer.format = const_cast<char*>(format);
  return buffer;
}

// The pending exception, normalised and with its traceback, taken off the thread.
struct Raised {
  PyObjectPtr type;
  PyObjectPtr value;
  PyObjectPtr traceback;

  static Raised take() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    enter_python([&] {
      PyErr_Fetch(&type, &value, &traceback);
      PyErr_NormalizeException(&type, &value, &traceback);
    });
    if (value != nullptr && traceback != nullptr) PyException_SetTraceback(value, traceback);
    return {PyObjectPtr(type), PyObjectPtr(value), PyObjectPtr(traceback)};
  }

  // Prints to sys.stderr. Calls no hook, never exits, and survives any failure of the stream.
  void display() const {
    enter_python([this] { PyErr_Display(type.get(), value.get(), traceback.get()); });
    clear_exception();
  }
};

// Null as None, as hooks and debuggers expect.
PyObject* or_none(const PyObjectPtr& object) { return object != nullptr ? object.get() : Py_None; }

void set_sys_attribute(const char* name, PyObject* value) {
  // Drops the old value.
  if (enter_python([=] { return PySys_SetObject(name, value); }) < 0) clear_exception();
}

void write_to_stderr(const char* text) {
  enter_python([text] { PySys_WriteStderr("%s", text); });
}

// Shows the pending exception as the interpreter would, through sys.excepthook, and clears it.
// PyErr_Print must not be used on our threads: on a SystemExit, from the callable or the hook, it
// exits the process from this thread, for which the exit then waits.
void show_exception() {
  const Raised raised = Raised::take();
  set_sys_attribute("last_type", or_none(raised.type));
  set_sys_attribute("last_value", or_none(raised.value));
  set_sys_attribute("last_traceback", or_none(raised.traceback));
  const PyObjectPtr hook = new_reference(PySys_GetObject("excepthook"));  // it may replace itself
  if (hook == nullptr) {
    write_to_stderr("sys.excepthook is missing\n");
    raised.display();
    return;
  }
  const PyObjectPtr result(enter_python([&] {
    return PyObject_CallFunctionObjArgs(hook.get(), or_none(raised.type), or_none(raised.value),
                                        or_none(raised.traceback), nullptr);
  }));
  if (result == nullptr) {
    const Raised by_hook = Raised::take();
    write_to_stderr("Error in sys.excepthook:\n");
    by_hook.display();
    write_to_stderr("\nOriginal exception was:\n");
    raised.display();
  }
}

}  // namespace

void park_thread() {
  while (true) pause();
}

void PyObjectDeleter::operator()(PyObject* object) const {
  if (object != nullptr) {
    enter_python([object] { Py_DECREF(object); });
  }
}

PyObjectPtr new_reference(PyObject* object) { return PyObjectPtr(Py_XNewRef(object)); }

PyObject* MemberName::object() {
  if (object_ == nullptr) object_ = PyUnicode_InternFromString(text_);
  return object_;
}

void clear_exception() { enter_python(PyErr_Clear); }

void set_error_if_not_present(PyObject* type, const char* message) {
  if (PyErr_Occurred() == nullptr) PyErr_SetString(type, message);
}

Py_buffer construct_py_buffer_from_int16(const std::int16_t* data, std::size_t count) {
  return construct_py_buffer(data, count * sizeof(std::int16_t), sizeof(std::int16_t), "h");
}

Py_buffer construct_py_buffer_from_uint8(const std::uint8_t* data, std::size_t count) {
  return construct_py_buffer(data, count, 1, "B");
}

PyObjectPtr get_attribute(PyObject* object, MemberName& name) {
  PyObject* key = name.object();
  if (key == nullptr) return nullptr;
  return PyObjectPtr(enter_python([=] { return PyObject_GetAttr(object, key); }));
}

PyObjectPtr get_member_value(PyObject* object, MemberName& name) {
  PyObjectPtr value = get_attribute(object, name);
  if (value == nullptr) {
    clear_exception();
    const std::string message = concat("Object has no member '", name.text(), "'");
    PyErr_SetString(PyExc_AttributeError, message.c_str());
    LOG4CXX_WARN(logger, "get_member_value: " << message);
  }
  return value;
}

std::optional<std::string> get_member_value_as_string(PyObject* object, MemberName& name) {
  const PyObjectPtr value = get_member_value(object, name);
  if (value == nullptr) return std::nullopt;
  if (!PyUnicode_Check(value.get())) {
    set_error_if_not_present(PyExc_TypeError,
                             concat("'", name.text(), "' is not a string").c_str());
    return std::nullopt;
  }
  Py_ssize_t size = 0;
  const char* text = PyUnicode_AsUTF8AndSize(value.get(), &size);
  if (text == nullptr) {
    set_error_if_not_present(PyExc_TypeError,
                             concat("Cannot convert member '", name.text(), "' to string").c_str());
    return std::nullopt;
  }
  return std::string(text, static_cast<std::size_t>(size));
}

std::optional<bool> get_member_value_as_boolean(PyObject* object, MemberName& name) {
  const PyObjectPtr value = get_member_value(object, name);
  if (value == nullptr) return std::nullopt;
  const int truth = enter_python([&] { return PyObject_IsTrue(value.get()); });
  if (truth < 0) {
    set_error_if_not_present(
        PyExc_TypeError,
        concat("Member '", name.text(), "' cannot be converted to boolean").c_str());
    LOG4CXX_WARN(logger,
                 "get_member_value_as_boolean: member_name=" << name.text() << " is not a boolean");
    return std::nullopt;
  }
  return truth == 1;
}

std::optional<long> get_member_value_as_long(PyObject* object, MemberName& name) {
  const PyObjectPtr value = get_member_value(object, name);
  if (value == nullptr) return std::nullopt;
  const long number = enter_python([&] { return PyLong_AsLong(value.get()); });
  if (PyErr_Occurred() != nullptr) {
    LOG4CXX_WARN(logger, "get_member_value_as_long: member_name="
                             << name.text() << " cannot be converted to long.");
    return std::nullopt;
  }
  return number;
}

PyObjectPtr get_member_value_as_function(PyObject* object, MemberName& name) {
  PyObjectPtr value = get_member_value(object, name);
  if (value == nullptr) {
    LOG4CXX_WARN(logger, "get_member_value_as_function: Function not present. callback_name="
                             << name.text());
    return nullptr;
  }
  if (PyCallable_Check(value.get()) == 0) {
    PyErr_SetString(PyExc_TypeError, "Callback is not a callable object.");
    return nullptr;
  }
  LOG4CXX_DEBUG(logger,
                "get_member_value_as_function: Function set. callback_name=" << name.text());
  return value;
}

PyObjectPtr call_python_object_with_gil(PyObject* callable, PyObject* args, std::string_view name) {
  if (callable == nullptr) {
    LOG4CXX_WARN(logger, "call_python_object_with_gil: callable is null for " << name);
    return nullptr;
  }
  if (PyCallable_Check(callable) == 0) {
    LOG4CXX_WARN(logger, "call_python_object_with_gil: object is not callable for " << name);
    return nullptr;
  }
  const PyGILLock lock;
  PyObjectPtr result(enter_python([=] { return PyObject_CallObject(callable, args); }));
  if (result == nullptr) {
    LOG4CXX_ERROR(logger,
                  "call_python_object_with_gil: Python function raised an exception for " << name);
    show_exception();
  }
  // Last, as a failed call's traceback may show the arguments.
  PyObjectDeleter()(args);
  return result;
}

}  // namespace python_utils
