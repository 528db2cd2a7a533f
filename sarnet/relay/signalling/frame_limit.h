#pragma once

#include <libsoup/soup.h>

namespace sarnet::relay {

// Bounds what arrives over a WebSocket: the size of a fragmented message, which libsoup collects
// without bound (its own limit is per frame), and the amount per period. The connection ends with
// an error that says which. For a session of one connection; call before it connects.
void limit_frames(SoupSession* session, SoupMessage* handshake);

}  // namespace sarnet::relay
