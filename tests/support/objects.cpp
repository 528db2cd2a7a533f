// Streams and connections.
#include "script.h"
#include "scripted_sarnet.h"

using scripted::Fn;
using scripted::Handle;
using scripted::isValid;
using scripted::Kind;
using scripted::script;

srn_stream* srn_stream_copy(const srn_stream* stream) {
  if (script().call(Fn::srn_stream_copy, "stream", static_cast<const Handle*>(stream)) ||
      !isValid(stream, Kind::stream, "srn_stream_copy")) {
    return nullptr;
  }
  const auto connection = stream->connection == nullptr
                              ? nullptr
                              : std::make_shared<srn_connection>(stream->connection->facts);
  return scripted::adopt(std::make_shared<srn_stream>(stream->id, connection));
}

srn_status srn_stream_delete(srn_stream* stream) {
  const auto status = script().call(Fn::srn_stream_delete, "stream", static_cast<Handle*>(stream));
  if (stream == nullptr) return SRN_SUCCESS;
  if (!scripted::retire(stream, Kind::stream, "srn_stream_delete")) {
    return SRN_SESSION_NULL_OR_INVALID_PARAMETER;
  }
  return status.value_or(SRN_SUCCESS);
}

const char* srn_stream_get_id(const srn_stream* stream) {
  if (script().call(Fn::srn_stream_get_id, "stream", static_cast<const Handle*>(stream)) ||
      !isValid(stream, Kind::stream, "srn_stream_get_id")) {
    return nullptr;
  }
  return stream->id.get();
}

const srn_connection* srn_stream_get_connection(const srn_stream* stream) {
  if (script().call(Fn::srn_stream_get_connection, "stream", static_cast<const Handle*>(stream)) ||
      !isValid(stream, Kind::stream, "srn_stream_get_connection")) {
    return nullptr;
  }
  return stream->connection.get();
}

namespace {

const char* connectionText(Fn function, const srn_connection* connection,
                           scripted::Text scripted::ConnectionFacts::*field) {
  if (script().call(function, "connection", static_cast<const Handle*>(connection)) ||
      !isValid(connection, Kind::connection, scripted::nameOf(function))) {
    return nullptr;
  }
  return (connection->facts.*field).get();
}

}  // namespace

const char* srn_connection_get_id(const srn_connection* connection) {
  return connectionText(Fn::srn_connection_get_id, connection, &scripted::ConnectionFacts::id);
}

const char* srn_connection_get_data(const srn_connection* connection) {
  return connectionText(Fn::srn_connection_get_data, connection, &scripted::ConnectionFacts::data);
}

const char* srn_connection_get_session_id(const srn_connection* connection) {
  return connectionText(Fn::srn_connection_get_session_id, connection,
                        &scripted::ConnectionFacts::session_id);
}

int64_t srn_connection_get_creation_time(const srn_connection* connection) {
  if (script().call(Fn::srn_connection_get_creation_time, "connection",
                    static_cast<const Handle*>(connection)) ||
      !isValid(connection, Kind::connection, "srn_connection_get_creation_time")) {
    return 0;
  }
  return connection->facts.creation_time;
}

srn_status srn_connection_delete(srn_connection* connection) {
  const auto status =
      script().call(Fn::srn_connection_delete, "connection", static_cast<Handle*>(connection));
  if (connection == nullptr) return SRN_SUCCESS;
  if (!scripted::retire(connection, Kind::connection, "srn_connection_delete")) {
    return SRN_SESSION_NULL_OR_INVALID_PARAMETER;
  }
  return status.value_or(SRN_SUCCESS);
}

srn_stream* scripted_stream_new(const char* id, const char* connection_id,
                                const char* connection_data, const char* session_id,
                                int64_t creation_time) {
  const auto connection = connection_id == nullptr
                              ? nullptr
                              : std::make_shared<srn_connection>(scripted::ConnectionFacts{
                                    scripted::Text(connection_id), scripted::Text(connection_data),
                                    scripted::Text(session_id), creation_time});
  return scripted::adopt(std::make_shared<srn_stream>(scripted::Text(id), connection));
}

srn_connection* scripted_connection_new(const char* id, const char* data, const char* session_id,
                                        int64_t creation_time) {
  return scripted::adopt(std::make_shared<srn_connection>(scripted::ConnectionFacts{
      scripted::Text(id), scripted::Text(data), scripted::Text(session_id), creation_time}));
}
