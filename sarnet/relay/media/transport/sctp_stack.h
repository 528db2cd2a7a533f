#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "relay/signalling/main_loop.h"

namespace sarnet::relay {

// What the SCTP stack wants sent for one association. The stack is one for the process, and any
// session's loop may run its timers, so packets come on any thread and leave on the owner's loop.
class SctpOutbox {
 public:
  // `flush` is run on the loop's thread when packets came from another's doing. Any thread may be
  // the last to let go of the outbox.
  SctpOutbox(std::shared_ptr<MainLoop> loop, std::function<void()> flush)
      : loop_(std::move(loop)), flush_(std::move(flush)) {}

  // Any thread.
  void add(const void* packet, std::size_t size);
  // The loop's thread: what is to be sent, in order.
  std::vector<std::vector<std::uint8_t>> take();
  bool empty();
  // The loop's thread: between the two, add() leaves it to the owner to take what came.
  void attend(bool attended);

 private:
  const std::shared_ptr<MainLoop> loop_;
  const std::function<void()> flush_;
  std::mutex mutex_;
  std::vector<std::vector<std::uint8_t>> packets_;
  bool attended_ = false;
  bool asked_ = false;
};

// The SCTP stack of the process, which runs no threads of its own: time passes for it by the loops
// of those who use it. Set up when it is first asked for; never taken down. All of it on any
// thread, unless said otherwise.
namespace sctp_stack {

// Gives the outbox an address to open associations with; withdrawn, packets for it are dropped.
void* register_outbox(const std::shared_ptr<SctpOutbox>& outbox);
void withdraw_outbox(void* address);

// Has the stack's timers run by this loop while the handle lives. The loop's thread; the peers of a
// loop share one.
class Ticker;
std::shared_ptr<Ticker> ticker(const std::shared_ptr<MainLoop>& loop);

}  // namespace sctp_stack

}  // namespace sarnet::relay
