#include "relay/signalling/frame_limit.h"

#include <chrono>
#include <cstdint>

#include "relay/signalling/wire_limits.h"

namespace sarnet::relay {
namespace {

using Clock = std::chrono::steady_clock;

// libsoup passes each frame to the protocol's extensions before it stores it. This one only looks:
// it is never negotiated on the wire.
constexpr const char* kName = "x-frame-limit";
constexpr const char* kHeader = "Sec-WebSocket-Extensions";

constexpr unsigned kOpcode = 0x0F;
constexpr unsigned kControl = 0x08;

struct FrameLimit {
  SoupWebsocketExtension parent;
  std::uint64_t message;  // bytes of the one that is under way
  std::uint64_t frames;   // of this period, as are the bytes
  std::uint64_t bytes;
  Clock::time_point since;
};
struct FrameLimitClass {
  SoupWebsocketExtensionClass parent;
};

const char* excess(FrameLimit& limit, unsigned opcode, std::uint64_t size) {
  const auto now = Clock::now();
  if (now - limit.since > kFloodPeriod) {
    limit.since = now;
    limit.frames = limit.bytes = 0;
  }
  limit.bytes += size;
  if (++limit.frames > kFloodFrames || limit.bytes > kFloodBytes) {
    return "the server sends more than can be taken";
  }
  if ((opcode & kControl) != 0) return nullptr;
  limit.message = opcode == 0 ? limit.message + size : size;
  return limit.message > kMaxMessage ? "the server sent a message of more than 1 MiB" : nullptr;
}

GBytes* take_frame(SoupWebsocketExtension* extension, guint8* header, GBytes* payload,
                   GError** error) {
  auto& limit = *reinterpret_cast<FrameLimit*>(extension);
  if (const char* reason = excess(limit, header[0] & kOpcode, g_bytes_get_size(payload))) {
    g_bytes_unref(payload);
    g_set_error_literal(error, SOUP_WEBSOCKET_ERROR, SOUP_WEBSOCKET_CLOSE_TOO_BIG, reason);
    return nullptr;
  }
  return payload;
}

void initialise_class(gpointer type, gpointer) {
  auto* const extension = static_cast<SoupWebsocketExtensionClass*>(type);
  extension->name = kName;
  extension->process_incoming_message = &take_frame;
}

// Its members begin as zeros.
GType frame_limit_type() {
  static const GType type = g_type_register_static_simple(
      SOUP_TYPE_WEBSOCKET_EXTENSION, "SarnetFrameLimit", sizeof(FrameLimitClass), &initialise_class,
      sizeof(FrameLimit), nullptr, static_cast<GTypeFlags>(0));
  return type;
}

}  // namespace

void limit_frames(SoupSession* session, SoupMessage* handshake) {
  // No compression either: a short message could become a very long one.
  soup_session_remove_feature_by_type(session, SOUP_TYPE_WEBSOCKET_EXTENSION_MANAGER);
  soup_session_add_feature_by_type(session, SOUP_TYPE_WEBSOCKET_EXTENSION_MANAGER);
  soup_session_remove_feature_by_type(session, SOUP_TYPE_WEBSOCKET_EXTENSION_DEFLATE);
  soup_session_add_feature_by_type(session, frame_limit_type());
  g_signal_connect(handshake, "starting", G_CALLBACK(+[](SoupMessage* message, gpointer) {
                     soup_message_headers_remove(soup_message_get_request_headers(message),
                                                 kHeader);
                   }),
                   nullptr);
  g_signal_connect(handshake, "got-informational", G_CALLBACK(+[](SoupMessage* message, gpointer) {
                     soup_message_headers_replace(soup_message_get_response_headers(message),
                                                  kHeader, kName);
                   }),
                   nullptr);
}

}  // namespace sarnet::relay
