#include "session/stream.h"

namespace sarnet {
namespace {

srn_connection* lend(const Context& context, const ConnectionInfo& info) {
  return context.connections.add(std::make_shared<Connection>(Connection{info}),
                                 HandleOwner::kLibrary);
}

}  // namespace

Stream::Stream(const Context& context, StreamInfo info)
    : context_(context), info_(std::move(info)), connection_(lend(context, info_.connection)) {}

Stream::~Stream() { context_.connections.remove(connection_, HandleOwner::kLibrary); }

LentStream::LentStream(const Context& context, const StreamInfo& info)
    : context_(context),
      handle_(context.streams.add(std::make_shared<Stream>(context, info), HandleOwner::kLibrary)) {
}

LentStream::~LentStream() { context_.streams.remove(handle_, HandleOwner::kLibrary); }

LentConnection::LentConnection(const Context& context, const ConnectionInfo& info)
    : context_(context), handle_(lend(context, info)) {}

LentConnection::~LentConnection() { context_.connections.remove(handle_, HandleOwner::kLibrary); }

}  // namespace sarnet
