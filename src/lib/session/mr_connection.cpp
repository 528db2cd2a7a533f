#include "session/mr_connection.h"

#include <ostream>

#include "session/srn_handles.h"
#include "support/logger.h"

const log4cxx::LoggerPtr& MRConnection::logger_ = lastingLogger("MRConnection");

std::ostream& operator<<(std::ostream& out, const MRConnectionInfo& info) {
  return out << "MRConnectionInfo: {connectionId: " << info.connection_id
             << ", creationTime: " << info.creation_time << ", data: " << info.data
             << ", sessionId: " << info.session_id << "}";
}

MRConnection::MRConnection(const srn_connection* connection) {
  if (connection == nullptr) {
    LOG4CXX_ERROR(logger_, "MRConnection: Received nullptr pointer to a connection");
    return;
  }
  connection_info_ = createConnectionInfo(connection);
}

MRConnectionInfo MRConnection::createConnectionInfo(const srn_connection* connection) {
  MRConnectionInfo info;
  if (connection == nullptr) {
    LOG4CXX_ERROR(logger_, "MRConnection::createConnectionInfo: Received nullptr connection");
    return info;
  }
  info.connection_id = textOrEmpty(srn_connection_get_id(connection));
  info.creation_time = srn_connection_get_creation_time(connection);
  info.data = textOrEmpty(srn_connection_get_data(connection));
  info.session_id = textOrEmpty(srn_connection_get_session_id(connection));
  return info;
}
