#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "relay/signalling/main_loop.h"

namespace wire {

using Packet = std::vector<std::uint8_t>;

// Carries the datagrams between two ends on 127.0.0.1, on the loop: each end is given the wire's
// candidate instead of the other's. The loop's thread.
class Wire {
 public:
  explicit Wire(const sarnet::relay::MainLoop& loop);
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  // The candidate of an end (0 or 1) as the other one is to be told it.
  std::string replace(int end, const std::string& candidate);

  // What arrives at the other end for a datagram; as it is, when there is no function.
  std::function<std::vector<Packet>(const Packet&)> treat;

 private:
  struct Side {
    int socket = -1;  // stands for this end towards the other
    int port = 0;     // of the wire
    int peer = 0;     // the end's own port
    sarnet::relay::SourceHandle source;
  };
  void carry(int from);

  Side sides_[2];
};

}  // namespace wire
