#pragma once

#include <functional>

#include "relay/signalling/glib_handles.h"
#include "relay/signalling/main_loop.h"

namespace sarnet::relay {

// Tells of changes of this machine's addresses and routes, as the kernel does: a little after the
// first of several, and again as long as there are more. The loop's thread alone. Where the kernel
// is not to be asked, it tells nothing.
class NetworkWatch {
 public:
  // The loop must outlive it. `changed` may destroy it.
  NetworkWatch(const MainLoop& loop, std::function<void()> changed);
  ~NetworkWatch();
  NetworkWatch(const NetworkWatch&) = delete;
  NetworkWatch& operator=(const NetworkWatch&) = delete;

 private:
  void read();

  const MainLoop& loop_;
  const std::function<void()> changed_;
  int socket_ = -1;
  SourceHandle source_;
  MainLoop::Timer settling_;
};

}  // namespace sarnet::relay
