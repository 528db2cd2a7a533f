#pragma once

#include <libsoup/soup.h>

namespace sarnet::relay {

// Bounds what comes over a WebSocket: the size of a message in fragments, which libsoup collects
// without end (its own limit is for one frame), and how much comes in a period. The connection ends
// with an error that says which. For a session of one connection, before it connects.
void limit_frames(SoupSession* session, SoupMessage* handshake);

}  // namespace sarnet::relay
