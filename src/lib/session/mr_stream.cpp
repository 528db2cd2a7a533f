#include "session/mr_stream.h"

#include <ostream>

#include "support/logger.h"

std::ostream& operator<<(std::ostream& out, const MRStreamInfo& info) {
  return out << "MRStreamInfo: {streamId: " << info.stream_id << ", connection: " << info.connection
             << "}";
}

MRStream::MRStream(const srn_stream* stream)
    : stream_(srn_stream_copy(stream)), logger_(log4cxx::Logger::getLogger("MRStream")) {
  if (stream == nullptr) {
    LOG4CXX_ERROR(logger_, "MRStream: Recieved nullptr pointer to a stream");
    return;
  }
  createStreamInfo();
}

void MRStream::createStreamInfo() {
  if (stream_ == nullptr || !stream_info_.stream_id.empty()) return;
  stream_info_.stream_id = textOrEmpty(srn_stream_get_id(stream_.get()));
  if (const srn_connection* connection = srn_stream_get_connection(stream_.get())) {
    stream_info_.connection = MRConnection(connection).getConnectionInfo();
  }
}
