#include "api/border.h"
#include "api/library.h"

using sarnet::guarded_result;
using sarnet::kInvalid;
using sarnet::Library;

namespace {

// Borrowed from the connection, which the program keeps alive.
const char* text_of(const srn_connection* connection, std::string sarnet::ConnectionInfo::*field) {
  const auto object = Library::instance().connections.find(connection);
  return object ? (object->info.*field).c_str() : nullptr;
}

}  // namespace

extern "C" {

srn_stream* srn_stream_copy(const srn_stream* stream) {
  return guarded_result<srn_stream*>("srn_stream_copy", nullptr, [&]() -> srn_stream* {
    auto& streams = Library::instance().streams;
    const auto original = streams.find(stream);
    return original ? streams.add(std::make_shared<sarnet::Stream>(Library::instance().context,
                                                                   original->info()))
                    : nullptr;
  });
}

srn_status srn_stream_delete(srn_stream* stream) {
  if (stream == nullptr) return SRN_SUCCESS;
  return Library::instance().streams.remove(stream) ? SRN_SUCCESS : kInvalid;
}

const char* srn_stream_get_id(const srn_stream* stream) {
  const auto object = Library::instance().streams.find(stream);
  return object ? object->info().id.c_str() : nullptr;
}

const srn_connection* srn_stream_get_connection(const srn_stream* stream) {
  const auto object = Library::instance().streams.find(stream);
  return object ? object->connection() : nullptr;
}

const char* srn_connection_get_id(const srn_connection* connection) {
  return text_of(connection, &sarnet::ConnectionInfo::id);
}

const char* srn_connection_get_data(const srn_connection* connection) {
  return text_of(connection, &sarnet::ConnectionInfo::data);
}

const char* srn_connection_get_session_id(const srn_connection* connection) {
  return text_of(connection, &sarnet::ConnectionInfo::session_id);
}

int64_t srn_connection_get_creation_time(const srn_connection* connection) {
  const auto object = Library::instance().connections.find(connection);
  return object ? object->info.created_ms : 0;
}

srn_status srn_connection_delete(srn_connection* connection) {
  if (connection == nullptr) return SRN_SUCCESS;
  return Library::instance().connections.remove(connection) ? SRN_SUCCESS : kInvalid;
}

}  // extern "C"
