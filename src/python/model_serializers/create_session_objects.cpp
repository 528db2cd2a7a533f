#include "data_models.h"
#include "model_serializers/create_objects.h"
#include "model_serializers/member_names.h"
#include "model_serializers/model_builder.h"
#include "model_serializers/serializer_logger.h"

namespace models {

namespace {

using python_utils::enter_python;
using python_utils::PyGILLock;
using python_utils::set_error_if_not_present;

PyObjectPtr fail(PyObject* exception, const char* message) {
  set_error_if_not_present(exception, message);
  return nullptr;
}

PyObjectPtr create_local_time(int64_t milliseconds) {
  const PyObjectPtr module = import_datetime();
  if (module == nullptr) return fail(PyExc_ImportError, "Failed to import datetime module");
  const PyObjectPtr datetime = python_utils::get_attribute(module.get(), names::kDatetime);
  if (datetime == nullptr) return fail(PyExc_RuntimeError, "Failed to get datetime class");
  const PyObjectPtr from_timestamp =
      python_utils::get_attribute(datetime.get(), names::kFromTimestamp);
  if (from_timestamp == nullptr) {
    return fail(PyExc_RuntimeError, "Failed to get fromtimestamp method");
  }
  const PyObjectPtr seconds(PyFloat_FromDouble(static_cast<double>(milliseconds) / 1000.0));
  const PyObjectPtr args(
      seconds == nullptr ? nullptr : enter_python([&] { return PyTuple_Pack(1, seconds.get()); }));
  if (args == nullptr) return fail(PyExc_MemoryError, "Failed to create timestamp objects");
  PyObjectPtr time(
      enter_python([&] { return PyObject_CallObject(from_timestamp.get(), args.get()); }));
  if (time == nullptr) {
    return fail(PyExc_RuntimeError, "Failed to create datetime object from timestamp");
  }
  return time;
}

}  // namespace

PyObjectPtr create_session_object(const std::string& session_id) {
  const PyGILLock lock;
  PyObject* session_class = get_session_class();
  if (session_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get Session type");
    return nullptr;
  }
  const PyObjectPtr id = create_string(session_id);
  return call_with_keywords(session_class, {{names::kId, id.get()}});
}

PyObjectPtr create_connection_object(const MRConnectionInfo& info) {
  const PyGILLock lock;
  PyObject* connection_class = get_connection_class();
  if (connection_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get Connection type");
    return nullptr;
  }
  const PyObjectPtr id = create_string(info.connection_id);
  if (id == nullptr) return fail(PyExc_MemoryError, "Failed to create Python objects");
  const PyObjectPtr creation_time = create_local_time(info.creation_time);
  if (creation_time == nullptr) return nullptr;
  const PyObjectPtr data = create_string(info.data);
  if (data == nullptr) return fail(PyExc_MemoryError, "Failed to create data string");
  return call_with_keywords(connection_class, {{names::kId, id.get()},
                                               {names::kCreationTime, creation_time.get()},
                                               {names::kData, data.get()}});
}

PyObjectPtr create_stream_object(const MRStreamInfo& info) {
  const PyGILLock lock;
  PyObject* stream_class = get_stream_class();
  if (stream_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get Stream type");
    return nullptr;
  }
  const PyObjectPtr connection = create_connection_object(info.connection);
  if (connection == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to create connection object for stream");
    return nullptr;
  }
  const PyObjectPtr id = create_string(info.stream_id);
  return call_with_keywords(stream_class,
                            {{names::kId, id.get()}, {names::kConnection, connection.get()}});
}

PyObjectPtr create_subscriber_object(const MRStreamInfo& stream_info) {
  const PyGILLock lock;
  PyObject* subscriber_class = get_subscriber_class();
  if (subscriber_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get Subscriber type");
    return nullptr;
  }
  const PyObjectPtr stream = create_stream_object(stream_info);
  if (stream == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to create stream object for subscriber");
    return nullptr;
  }
  return call_with_keywords(subscriber_class, {{names::kStream, stream.get()}});
}

PyObjectPtr create_subscriber_object(const MRSubscriberInfo& subscriber_info) {
  MRStreamInfo stream_info;
  stream_info.stream_id = subscriber_info.publisher_stream_id;
  return create_subscriber_object(stream_info);
}

PyObjectPtr create_publisher_object(const MRStreamInfo& stream_info) {
  const PyGILLock lock;
  PyObject* publisher_class = get_publisher_class();
  if (publisher_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get Publisher type");
    return nullptr;
  }
  const PyObjectPtr stream = create_stream_object(stream_info);
  if (stream == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to create stream object for publisher");
    return nullptr;
  }
  return call_with_keywords(publisher_class, {{names::kStream, stream.get()}});
}

}  // namespace models
