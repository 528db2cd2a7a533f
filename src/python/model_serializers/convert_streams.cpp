#include <cmath>
#include <limits>

#include "model_serializers/attribute_reader.h"
#include "model_serializers/convert_objects.h"
#include "model_serializers/member_names.h"

namespace models {

namespace {

using python_utils::enter_python;
using python_utils::get_member_value;
using python_utils::PyGILLock;
using python_utils::PyObjectPtr;
using python_utils::set_error_if_not_present;

int64_t to_milliseconds(double seconds) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  const double milliseconds = seconds * 1000.0;
  if (std::isnan(milliseconds)) return 0;
  if (milliseconds >= kLimit) return std::numeric_limits<int64_t>::max();
  if (milliseconds < -kLimit) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(milliseconds);
}

bool read_creation_time(PyObject* connection, int64_t& milliseconds) {
  const PyObjectPtr time = get_member_value(connection, names::kCreationTime);
  if (time == nullptr || time.get() == Py_None) {
    set_error_if_not_present(PyExc_TypeError, "creation_time must be a datetime object");
    return false;
  }
  const PyObjectPtr timestamp = get_member_value(time.get(), names::kTimestamp);
  if (timestamp == nullptr) {
    set_error_if_not_present(PyExc_AttributeError,
                             "creation_time object does not have timestamp method");
    return false;
  }
  const PyObjectPtr seconds(
      enter_python([&] { return PyObject_CallObject(timestamp.get(), nullptr); }));
  if (seconds == nullptr || !PyFloat_Check(seconds.get())) {
    set_error_if_not_present(PyExc_TypeError, "creation_time.timestamp() did not return a float");
    return false;
  }
  milliseconds = to_milliseconds(PyFloat_AsDouble(seconds.get()));
  return true;
}

}  // namespace

bool convert_connection_from_python(PyObject* object, MRConnectionInfo& info) {
  if (!is_given(object, "Connection")) return false;
  const PyGILLock lock;
  return read(object, names::kId, info.connection_id) &&
         read_creation_time(object, info.creation_time) && read(object, names::kData, info.data);
}

bool convert_stream_from_python(PyObject* object, MRStreamInfo& info) {
  if (!is_given(object, "Stream")) return false;
  const PyGILLock lock;
  if (!read(object, names::kId, info.stream_id)) return false;
  const PyObjectPtr connection = get_member_value(object, names::kConnection);
  return connection != nullptr && convert_connection_from_python(connection.get(), info.connection);
}

}  // namespace models
