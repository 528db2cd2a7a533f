#include "relay/signalling/network_watch.h"

#include <glib-unix.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <utility>

namespace sarnet::relay {
namespace {

// A change comes in several steps: an address goes, its routes go, others come.
constexpr std::chrono::milliseconds kSettling{200};

}  // namespace

NetworkWatch::NetworkWatch(const MainLoop& loop, std::function<void()> changed)
    : loop_(loop), changed_(std::move(changed)) {
  socket_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (socket_ < 0) return;
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups =
      RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return;
  source_.reset(g_unix_fd_source_new(socket_, G_IO_IN));
  const GUnixFDSourceFunc on_readable = [](gint, GIOCondition, gpointer self) -> gboolean {
    static_cast<NetworkWatch*>(self)->read();
    return G_SOURCE_CONTINUE;
  };
  g_source_set_callback(source_.get(), G_SOURCE_FUNC(on_readable), this, nullptr);
  g_source_attach(source_.get(), loop_.context());
}

NetworkWatch::~NetworkWatch() {
  source_.reset();
  if (socket_ >= 0) close(socket_);
}

void NetworkWatch::read() {
  // That something changed is enough; an overflow says so, too.
  std::array<char, 8192> messages;
  while (recv(socket_, messages.data(), messages.size(), 0) > 0) continue;
  if (settling_) return;
  settling_ = MainLoop::Timer(loop_, kSettling, [this] {
    settling_.stop();
    const auto changed = changed_;  // it may destroy this
    changed();
  });
}

}  // namespace sarnet::relay
