#include "session/stream.h"

#include "session/library.h"

namespace sarnet {
namespace {

srn_connection* lend(const ConnectionInfo& info) {
  return Library::instance().connections.add(std::make_shared<Connection>(Connection{info}),
                                             HandleOwner::kLibrary);
}

void take_back(const srn_connection* handle) {
  Library::instance().connections.remove(handle, HandleOwner::kLibrary);
}

}  // namespace

Stream::Stream(StreamInfo info) : info_(std::move(info)), connection_(lend(info_.connection)) {}

Stream::~Stream() { take_back(connection_); }

LentStream::LentStream(const StreamInfo& info)
    : handle_(
          Library::instance().streams.add(std::make_shared<Stream>(info), HandleOwner::kLibrary)) {}

LentStream::~LentStream() { Library::instance().streams.remove(handle_, HandleOwner::kLibrary); }

LentConnection::LentConnection(const ConnectionInfo& info) : handle_(lend(info)) {}

LentConnection::~LentConnection() { take_back(handle_); }

}  // namespace sarnet
