#pragma once

#include <log4cxx/logger.h>
#include <sarnet/sarnet.h>

#include <iosfwd>
#include <string>

#include "session/mr_connection.h"
#include "session/srn_handles.h"

/// One stream of one participant, as plain text that may cross threads. Default: no stream.
struct MRStreamInfo {
  std::string stream_id;
  MRConnectionInfo connection;

  bool isValid() const { return !stream_id.empty(); }
};

std::ostream& operator<<(std::ostream& out, const MRStreamInfo& info);

/// An owned copy of a library stream with its record. Independent of the callback and the session
/// that it came from: each copy has a handle of its own, deleted with it, on any thread. No locks;
/// one object belongs to one thread at a time.
class MRStream {
 public:
  /// Copies the stream. Null, or a copy that fails, gives an empty object that is still usable.
  explicit MRStream(const srn_stream* stream);
  MRStream(const MRStream& other) : MRStream(other.stream_.get()) {}
  MRStream(MRStream&& other) = default;
  MRStream& operator=(const MRStream&) = delete;
  MRStream& operator=(MRStream&&) = delete;
  ~MRStream() = default;

  MRStreamInfo getStreamInfo() const { return stream_info_; }
  /// Owned by this object; null when empty.
  const srn_stream* getStream() const { return stream_.get(); }

 private:
  void createStreamInfo();

  SRNStreamPtr stream_;
  MRStreamInfo stream_info_;
  log4cxx::LoggerPtr logger_;
};
