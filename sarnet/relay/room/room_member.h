#pragma once

#include <cstdint>
#include <string>

#include "relay/signalling/janus_reply.h"

namespace sarnet::relay {

// The display field of our participants, a JSON object:
//   "data"    the connection's data
//   "joined"  when it joined, in milliseconds since the Unix epoch
//   "stream"  the name of its stream
//   "owner"   for a further stream of a connection, which takes a participation of its own at the
//             server: that connection's id. It is no connection itself.
// Any other text is the data of a connection, and the name of its stream.
struct Display {
  std::string data;
  std::int64_t joined_ms = 0;  // 0: unknown
  std::string stream;
  std::string owner;
};

Display parse_display(const std::string& text);
std::string format_display(const Display& display);

}  // namespace sarnet::relay
