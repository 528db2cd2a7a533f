#pragma once

#include <sarnet/sarnet.h>

#include <memory>
#include <utility>

#include "base/engine.h"

namespace sarnet {

// The objects behind srn_connection and srn_stream: constant once made, so any thread reads them.
struct Connection {
  const ConnectionInfo info;
};

// Owns the connection that srn_stream_get_connection lends.
class Stream {
 public:
  explicit Stream(StreamInfo info);
  ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  const StreamInfo& info() const { return info_; }
  const srn_connection* connection() const { return connection_; }

 private:
  const StreamInfo info_;
  srn_connection* const connection_;
};

// A handle that the program sees for the length of one callback.
class LentStream {
 public:
  explicit LentStream(const StreamInfo& info);
  ~LentStream();
  LentStream(const LentStream&) = delete;
  LentStream& operator=(const LentStream&) = delete;
  const srn_stream* get() const { return handle_; }

 private:
  srn_stream* const handle_;
};

class LentConnection {
 public:
  explicit LentConnection(const ConnectionInfo& info);
  ~LentConnection();
  LentConnection(const LentConnection&) = delete;
  LentConnection& operator=(const LentConnection&) = delete;
  const srn_connection* get() const { return handle_; }

 private:
  srn_connection* const handle_;
};

}  // namespace sarnet
