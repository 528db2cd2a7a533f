#pragma once

#include <log4cxx/logger.h>
#include <sarnet/sarnet.h>

#include <cstdint>
#include <iosfwd>
#include <string>

#include "runtime/event_queue_result.h"

/// One participant of a session, as plain text that may cross threads. Default: empty.
struct MRConnectionInfo {
  std::string connection_id;
  int64_t creation_time = 0;  ///< milliseconds since the Unix epoch
  std::string data;
  std::string session_id;

  bool isValid() const { return !connection_id.empty(); }
};

template <>
inline constexpr bool kIsEventQueueResult<MRConnectionInfo> = true;

std::ostream& operator<<(std::ostream& out, const MRConnectionInfo& info);

/// A borrowed connection of the library, read once. Belongs to one thread, inside the callback that
/// lent the handle; the record read from it may be kept.
class MRConnection {
 public:
  /// Null leaves the record empty, with a line in the log.
  explicit MRConnection(const srn_connection* connection);
  MRConnection(const MRConnection&) = delete;
  MRConnection& operator=(const MRConnection&) = delete;

  MRConnectionInfo getConnectionInfo() const { return connection_info_; }

  /// The record of a connection; texts that are null in the library are empty here.
  static MRConnectionInfo createConnectionInfo(const srn_connection* connection);

 private:
  static const log4cxx::LoggerPtr& logger_;

  MRConnectionInfo connection_info_;
};
