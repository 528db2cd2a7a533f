#include "relay/signalling/janus_socket.h"

#include <utility>

#include "base/guard.h"
#include "base/printable_text.h"
#include "relay/signalling/frame_limit.h"
#include "relay/signalling/wire_limits.h"

namespace sarnet::relay {
namespace {

// A connection that ends is released later: libsoup may still be using it.
void unref_later(GObject* object) {
  GSource* const source = g_idle_source_new();
  g_source_set_callback(
      source, [](gpointer) -> gboolean { return G_SOURCE_REMOVE; }, object, &g_object_unref);
  g_source_attach(source, g_main_context_get_thread_default());
  g_source_unref(source);
}

// Whether it tells of the network rather than of the server.
bool is_unreachable(const GError* error) {
  return g_error_matches(error, G_IO_ERROR, G_IO_ERROR_NETWORK_UNREACHABLE) ||
         g_error_matches(error, G_IO_ERROR, G_IO_ERROR_HOST_UNREACHABLE) ||
         g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) ||
         error->domain == G_RESOLVER_ERROR;
}

using Counter = std::shared_ptr<std::atomic<int>>;

// Counts a handshake's connections for as long as there are any: it runs on a thread of GLib's,
// which returns to the loop even when it is cancelled.
void count_connections(SoupMessage* handshake, const Counter& under_way) {
  const auto count = +[](SoupMessage*, int, GIOStream* stream, gpointer data) {
    constexpr const char* kCounted = "sarnet-counted";
    if (stream == nullptr || g_object_get_data(G_OBJECT(stream), kCounted) != nullptr) return;
    auto* const counter = new Counter(*static_cast<Counter*>(data));
    ++**counter;
    g_object_set_data_full(G_OBJECT(stream), kCounted, counter, [](gpointer counted) {
      --**static_cast<Counter*>(counted);
      delete static_cast<Counter*>(counted);
    });
  };
  g_signal_connect_data(
      handshake, "network-event", G_CALLBACK(count), new Counter(under_way),
      [](gpointer data, GClosure*) { delete static_cast<Counter*>(data); },
      static_cast<GConnectFlags>(0));
}

}  // namespace

JanusSocket::JanusSocket(Callbacks callbacks, std::shared_ptr<std::atomic<int>> under_way)
    : callbacks_(std::move(callbacks)),
      under_way_(std::move(under_way)),
      cancellable_(g_cancellable_new()) {}

JanusSocket::~JanusSocket() { close(); }

bool JanusSocket::open(const std::string& url, const std::string& ca_file, std::string& error) {
  session_.reset(soup_session_new());
  // No proxy: media could not follow through it.
  soup_session_set_proxy_resolver(session_.get(), nullptr);
  if (!ca_file.empty()) {
    GError* raw = nullptr;
    const GObjectHandle<GTlsDatabase> database(g_tls_file_database_new(ca_file.c_str(), &raw));
    if (!database) {
      const ErrorPtr owned(raw);
      error = "cannot read the certificate authorities in '" + ca_file + "': " + owned->message;
      return false;
    }
    soup_session_set_tls_database(session_.get(), database.get());
  }
  const GObjectHandle<SoupMessage> message(soup_message_new(SOUP_METHOD_GET, url.c_str()));
  if (!message) {
    error = "'" + url + "' is not an address";
    return false;
  }
  // No redirects: the token would go along.
  soup_message_add_flags(message.get(), SOUP_MESSAGE_NO_REDIRECT);
  limit_frames(session_.get(), message.get());
  count_connections(message.get(), under_way_);
  // None comes after on_connected(), until which the socket lives.
  const auto reached = +[](SoupMessage*, GSocketClientEvent event, GIOStream*, gpointer self) {
    if (event == G_SOCKET_CLIENT_CONNECTED) static_cast<JanusSocket*>(self)->reached_ = true;
  };
  g_signal_connect(message.get(), "network-event", G_CALLBACK(reached), this);
  const char* protocols[] = {"janus-protocol", nullptr};
  soup_session_websocket_connect_async(
      session_.get(), message.get(), nullptr, const_cast<char**>(protocols), G_PRIORITY_DEFAULT,
      cancellable_.get(), &on_connected, new std::shared_ptr<JanusSocket>(shared_from_this()));
  return true;
}

void JanusSocket::on_connected(GObject*, GAsyncResult* result, gpointer data) {
  const std::unique_ptr<std::shared_ptr<JanusSocket>> self(
      static_cast<std::shared_ptr<JanusSocket>*>(data));
  guarded("Opening the connection", [&] { (*self)->connected(result); });
}

void JanusSocket::connected(GAsyncResult* result) {
  GError* raw = nullptr;
  connection_.reset(soup_session_websocket_connect_finish(session_.get(), result, &raw));
  const ErrorPtr error(raw);
  if (closed_) {
    close();
    return;
  }
  if (!connection_) {
    fail(printable_text(error->message),
         is_unreachable(error.get()) ? Loss::kUnreachable : Loss::kBroken);
    return;
  }
  soup_websocket_connection_set_max_incoming_payload_size(connection_.get(), kMaxMessage);
  g_signal_connect(connection_.get(), "message", G_CALLBACK(&on_message), this);
  g_signal_connect(connection_.get(), "error", G_CALLBACK(&on_error), this);
  g_signal_connect(connection_.get(), "closed", G_CALLBACK(&on_closed), this);
  callbacks_.opened();
}

void JanusSocket::on_error(SoupWebsocketConnection*, GError* error, gpointer data) {
  const auto self = static_cast<JanusSocket*>(data)->shared_from_this();
  // A protocol violation would recur on a new connection; a network failure may not.
  const bool is_foul = error->domain == SOUP_WEBSOCKET_ERROR;
  guarded("Losing the connection", [&] {
    self->fail(printable_text(error->message), is_foul ? Loss::kFoul : Loss::kBroken);
  });
}

void JanusSocket::on_message(SoupWebsocketConnection*, int, GBytes* bytes, gpointer data) {
  const auto self = static_cast<JanusSocket*>(data)->shared_from_this();
  if (self->closed_) return;
  gsize size = 0;
  const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
  bool used = false;
  guarded("Using a message of the server", [&] {
    self->callbacks_.received({text, size});
    used = true;
  });
  if (used) return;
  guarded("Losing the connection",
          [&] { self->fail("a message of the server could not be used", Loss::kFoul); });
}

void JanusSocket::on_closed(SoupWebsocketConnection*, gpointer data) {
  const auto self = static_cast<JanusSocket*>(data)->shared_from_this();
  guarded("Losing the connection", [&] { self->fail("the server closed the connection"); });
}

void JanusSocket::fail(const std::string& reason, Loss loss) {
  if (closed_) return;
  const auto failed = std::exchange(callbacks_.failed, nullptr);
  close();
  failed(reason, loss);
}

void JanusSocket::send(const std::string& text) {
  if (!connection_ || closed_) return;
  if (soup_websocket_connection_get_state(connection_.get()) != SOUP_WEBSOCKET_STATE_OPEN) return;
  soup_websocket_connection_send_text(connection_.get(), text.c_str());
}

void JanusSocket::close() {
  closed_ = true;
  g_cancellable_cancel(cancellable_.get());
  if (connection_) {
    g_signal_handlers_disconnect_by_data(connection_.get(), this);
    // Closes the stream: libsoup's own closing waits for the peer. Cancelled, so that it does not
    // wait for the network either.
    g_io_stream_close(soup_websocket_connection_get_io_stream(connection_.get()),
                      cancellable_.get(), nullptr);
    unref_later(G_OBJECT(connection_.release()));
  }
  if (session_) soup_session_abort(session_.get());
}

}  // namespace sarnet::relay
