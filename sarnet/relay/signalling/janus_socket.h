#pragma once

#include <libsoup/soup.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "relay/signalling/glib_handles.h"

namespace sarnet::relay {

// One WebSocket to the server, opened once. The main loop's thread alone; the callbacks come from
// the loop, never from inside a call, and none after close().
class JanusSocket : public std::enable_shared_from_this<JanusSocket> {
 public:
  enum class Loss {
    kBroken,       // a new connection may do better
    kUnreachable,  // so it may, but the network is away
    kFoul,         // the server violated the protocol
  };
  struct Callbacks {
    std::function<void()> opened;
    std::function<void(std::string_view)> received;
    // Could not be opened, or was closed by the peer. Called once, as the last.
    std::function<void(const std::string& reason, Loss loss)> failed;
  };

  // `under_way` counts the connections that there are still, which close() does not wait for.
  JanusSocket(Callbacks callbacks, std::shared_ptr<std::atomic<int>> under_way);
  ~JanusSocket();
  JanusSocket(const JanusSocket&) = delete;
  JanusSocket& operator=(const JanusSocket&) = delete;

  // `ca_file` (PEM) replaces the system's certificate authorities unless it is empty. False, and
  // `error` set, when it cannot be read.
  bool open(const std::string& url, const std::string& ca_file, std::string& error);
  // Whether the server's machine has answered: encryption and greeting come next.
  bool has_reached() const { return reached_; }
  // Dropped unless the socket is open.
  void send(const std::string& text);
  // At once, without waiting for the peer. May be repeated.
  void close();

 private:
  static void on_connected(GObject* session, GAsyncResult* result, gpointer data);
  static void on_message(SoupWebsocketConnection*, int type, GBytes* bytes, gpointer self);
  static void on_error(SoupWebsocketConnection*, GError* error, gpointer self);
  static void on_closed(SoupWebsocketConnection*, gpointer self);
  void connected(GAsyncResult* result);
  void fail(const std::string& reason, Loss loss = Loss::kBroken);

  Callbacks callbacks_;
  const std::shared_ptr<std::atomic<int>> under_way_;
  GObjectHandle<SoupSession> session_;
  GObjectHandle<GCancellable> cancellable_;
  GObjectHandle<SoupWebsocketConnection> connection_;
  bool reached_ = false;
  bool closed_ = false;
};

}  // namespace sarnet::relay
