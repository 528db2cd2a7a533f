#pragma once

#include <Python.h>
#include <cxxabi.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// Helpers of the binding for safe use of Python. Unless said otherwise the caller holds the
// interpreter lock, and a null, empty or false result means that a Python exception is pending.
namespace python_utils {

// Never returns. For a thread that the interpreter no longer admits.
[[noreturn]] void park_thread();

// Runs `call`, which may run Python code or wait for the interpreter lock. A finalising interpreter
// unwinds any other thread that requests its lock. Such a thread is parked here instead: unwound
// frames would release references, buffers and the lock itself without holding the lock. A parked
// thread costs nothing and ends with the process. (Unwinding that C code started has no exception
// object, which the sanitizer must be told.)
template <class Call>
__attribute__((no_sanitize("null"), no_sanitize("alignment"))) auto enter_python(Call&& call) {
  try {
    return call();
  } catch (const abi::__forced_unwind&) {
    park_thread();
  }
}

// Holds the interpreter lock for a scope; nests. For any thread, known to Python or not.
class PyGILLock {
 public:
  PyGILLock() : gil_state_(enter_python([] { return PyGILState_Ensure(); })) {}
  ~PyGILLock() { PyGILState_Release(gil_state_); }
  PyGILLock(const PyGILLock&) = delete;
  PyGILLock(PyGILLock&&) = delete;
  PyGILLock& operator=(const PyGILLock&) = delete;
  PyGILLock& operator=(PyGILLock&&) = delete;

 private:
  PyGILState_STATE gil_state_;
};

// Drops one reference. May run any Python code through a finaliser.
struct PyObjectDeleter {
  void operator()(PyObject* object) const;
};

// One owned reference, dropped under the caller's interpreter lock.
using PyObjectPtr = std::unique_ptr<PyObject, PyObjectDeleter>;

// Another reference to a borrowed object, which may be null.
PyObjectPtr new_reference(PyObject* object);

// The name of an attribute or keyword: its text and, from its first use on, the interned string
// that makes look-ups cheap. Lives for the whole process.
class MemberName {
 public:
  explicit constexpr MemberName(const char* text) : text_(text) {}

  const char* text() const { return text_; }
  // Borrowed.
  PyObject* object();

 private:
  const char* text_;
  PyObject* object_ = nullptr;
};

// Raises an exception unless one is pending: the first is the most specific one.
void set_error_if_not_present(PyObject* type, const char* message);

// Read-only descriptions of native memory that no Python object owns: one dimension of 16-bit
// samples, or of bytes.
Py_buffer construct_py_buffer_from_int16(const std::int16_t* data, std::size_t count);
Py_buffer construct_py_buffer_from_uint8(const std::uint8_t* data, std::size_t count);

// Clears the pending exception, whose last reference may run finalisers.
void clear_exception();

// The value of an attribute, unconverted.
PyObjectPtr get_attribute(PyObject* object, MemberName& name);
// The same for a model's attribute. Any failure to read it counts as absence.
PyObjectPtr get_member_value(PyObject* object, MemberName& name);
std::optional<std::string> get_member_value_as_string(PyObject* object, MemberName& name);
// By truth value: the attribute need not be a bool.
std::optional<bool> get_member_value_as_boolean(PyObject* object, MemberName& name);
std::optional<long> get_member_value_as_long(PyObject* object, MemberName& name);
// For an attribute that holds a callable. Anything not callable, None too, is a TypeError, which
// replaces a pending exception.
PyObjectPtr get_member_value_as_function(PyObject* object, MemberName& name);

// Calls a Python callable for a native event: the only entry of events into Python. Takes the lock
// itself, but the caller must hold it too. What the callable raises is printed and logged under
// `name`, and does not stay pending.
//
// Takes over the reference to `args`, except when it returns at once because `callable` is null or
// not callable: then the caller still owns them. Null when nothing was called or the callable
// raised.
PyObjectPtr call_python_object_with_gil(PyObject* callable, PyObject* args, std::string_view name);

}  // namespace python_utils
