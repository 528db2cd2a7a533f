#pragma once

#include <sarnet/sarnet.h>

#include <memory>
#include <utility>

#include "base/engine.h"
#include "session/context.h"

namespace sarnet {

// The objects behind srn_connection and srn_stream: constant once made, so any thread reads them.
struct Connection {
  const ConnectionInfo info;
};

// Owns the connection that srn_stream_get_connection lends.
class Stream {
 public:
  Stream(const Context& context, StreamInfo info);
  ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  const StreamInfo& info() const { return info_; }
  const srn_connection* connection() const { return connection_; }

 private:
  const Context& context_;
  const StreamInfo info_;
  srn_connection* const connection_;
};

// A handle that the program sees for the length of one callback.
class LentStream {
 public:
  LentStream(const Context& context, const StreamInfo& info);
  ~LentStream();
  LentStream(const LentStream&) = delete;
  LentStream& operator=(const LentStream&) = delete;
  const srn_stream* get() const { return handle_; }

 private:
  const Context& context_;
  srn_stream* const handle_;
};

class LentConnection {
 public:
  LentConnection(const Context& context, const ConnectionInfo& info);
  ~LentConnection();
  LentConnection(const LentConnection&) = delete;
  LentConnection& operator=(const LentConnection&) = delete;
  const srn_connection* get() const { return handle_; }

 private:
  const Context& context_;
  srn_connection* const handle_;
};

}  // namespace sarnet
