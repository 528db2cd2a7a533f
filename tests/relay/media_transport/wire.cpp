#include "relay/media_transport/wire.h"

#include <arpa/inet.h>
#include <glib-unix.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <stdexcept>

namespace wire {
namespace {

sockaddr_in address_of(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

}  // namespace

Wire::Wire(const sarnet::relay::MainLoop& loop) {
  for (int i = 0; i < 2; ++i) {
    Side& side = sides_[i];
    side.socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in own = address_of(0);
    socklen_t size = sizeof(own);
    if (::bind(side.socket, reinterpret_cast<sockaddr*>(&own), size) != 0 ||
        ::getsockname(side.socket, reinterpret_cast<sockaddr*>(&own), &size) != 0) {
      throw std::runtime_error("no socket for the wire");
    }
    side.port = ntohs(own.sin_port);
    side.source.reset(g_unix_fd_source_new(side.socket, G_IO_IN));
    struct Ready {
      Wire* wire;
      int side;
    };
    g_source_set_callback(side.source.get(), G_SOURCE_FUNC(+[](int, GIOCondition, gpointer data) {
                            auto* ready = static_cast<Ready*>(data);
                            ready->wire->carry(ready->side);
                            return gboolean{TRUE};
                          }),
                          new Ready{this, i},
                          [](gpointer data) { delete static_cast<Ready*>(data); });
    g_source_attach(side.source.get(), loop.context());
  }
}

Wire::~Wire() {
  for (Side& side : sides_) {
    side.source.reset();
    ::close(side.socket);
  }
}

std::string Wire::replace(int end, const std::string& candidate) {
  std::istringstream words(candidate);
  std::string replaced;
  int at = 0;
  for (std::string word; words >> word; ++at) {
    if (at == 5) {
      sides_[end].peer = std::stoi(word);
      word = std::to_string(sides_[end].port);
    }
    replaced += (at == 0 ? "" : " ") + word;
  }
  return replaced;
}

// What came to the socket that stands for one end is for that end, and leaves by the other socket.
void Wire::carry(int to) {
  std::array<std::uint8_t, 2048> bytes{};
  for (;;) {
    const ssize_t size = ::recv(sides_[to].socket, bytes.data(), bytes.size(), 0);
    if (size < 0) return;
    const Packet packet(bytes.begin(), bytes.begin() + size);
    const sockaddr_in target = address_of(sides_[to].peer);
    for (const Packet& each : treat ? treat(packet) : std::vector<Packet>{packet}) {
      ::sendto(sides_[1 - to].socket, each.data(), each.size(), 0,
               reinterpret_cast<const sockaddr*>(&target), sizeof(target));
    }
  }
}

}  // namespace wire
