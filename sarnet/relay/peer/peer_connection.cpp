#define GST_USE_UNSTABLE_API
#include "relay/peer/peer_connection.h"

#include <gst/sdp/sdp.h>
#include <gst/webrtc/webrtc.h>

#include <utility>

#include "relay/media/transport/ice_server.h"
#include "relay/peer/services.h"

namespace sarnet::relay {

struct PeerConnection::Promise {
  std::weak_ptr<PeerConnection> peer;
  const char* step;
  const char* type;
  Next next;
};

namespace {

std::string take_error(const GstStructure* reply) {
  GError* error = nullptr;
  gst_structure_get(reply, "error", G_TYPE_ERROR, &error, nullptr);
  const ErrorPtr owned(error);
  return owned ? owned->message : "";
}

// The bus's handler, on whatever thread posts.
GstBusSyncReply on_message(GstBus*, GstMessage* message, gpointer data) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    if (const auto peer = lock_weak<PeerConnection>(data)) {
      GError* error = nullptr;
      gst_message_parse_error(message, &error, nullptr);
      const ErrorPtr owned(error);
      peer->fail(std::string("media stack: ") + GST_OBJECT_NAME(message->src) + ": " +
                 owned->message);
    }
  }
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_LATENCY) {
    if (const auto peer = lock_weak<PeerConnection>(data)) peer->settle_latency();
  }
  gst_message_unref(message);
  return GST_BUS_DROP;
}

// What is sent comes live and leaves at once. Held until the clock reaches its stamp, a picture
// that was stamped a little ahead would wait, and with it all that come after it.
void leave_unpaced(GstBin*, GstElement* element, gpointer) {
  if (is_made_by(element, "clocksync")) g_object_set(element, "sync", FALSE, nullptr);
}

}  // namespace

void PeerConnection::ReleaseDescription::operator()(
    GstWebRTCSessionDescription* description) const {
  gst_webrtc_session_description_free(description);
}

std::shared_ptr<PeerConnection> PeerConnection::create(const PeerSettings& settings,
                                                       PeerObserver& observer, std::string& error) {
  auto peer = std::make_shared<PeerConnection>(settings, observer);
  return peer->build(error) ? peer : nullptr;
}

PeerConnection::PeerConnection(const PeerSettings& settings, PeerObserver& observer)
    : settings_(settings), observer_(observer) {}

PeerConnection::~PeerConnection() { stop(); }

bool PeerConnection::build(std::string& error) {
  if (!media_stack_ready(error)) return false;
  pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
  webrtc_ = gst_element_factory_make("webrtcbin", nullptr);
  if (webrtc_ == nullptr) {
    error = "the media stack has no webrtcbin";
    return false;
  }
  g_signal_connect(webrtc_, "element-added", G_CALLBACK(&leave_unpaced), nullptr);
  gst_bin_add(pipeline(), webrtc_);
  g_object_set(webrtc_, "bundle-policy", GST_WEBRTC_BUNDLE_POLICY_MAX_BUNDLE, "latency",
               settings_.jitter_ms, nullptr);
  configure_ice();
  watch_bus();
  watch_webrtc();
  return true;
}

void PeerConnection::configure_ice() {
  GObject* agent = nullptr;
  g_object_get(webrtc_, "ice-agent", &agent, nullptr);
  const GObjectPtr owned(agent);
  GObject* nice = nullptr;
  g_object_get(agent, "agent", &nice, nullptr);
  if (const GObjectPtr owned_nice(nice); owned_nice) {
    // It would ask the network's routers, by multicast, to open ports. Media over TCP go through
    // TURN if at all.
    g_object_set(nice, "upnp", FALSE, "ice-tcp", FALSE, nullptr);
  }
  if (settings_.loopback) {
    gboolean added = FALSE;
    g_signal_emit_by_name(agent, "add-local-ip-address", "127.0.0.1", &added);
    if (added == FALSE) SARNET_LOG(kWarn, "relay: 127.0.0.1 cannot be used for media");
  }
  for (const std::string& text : settings_.ice_servers) {
    const IceServer server = parse_ice_server(text);
    gboolean added = TRUE;
    switch (server.kind) {
      case IceServer::Kind::kStun:
        g_object_set(webrtc_, "stun-server", server.uri.c_str(), nullptr);
        break;
      case IceServer::Kind::kTurn:
        g_signal_emit_by_name(webrtc_, "add-turn-server", server.uri.c_str(), &added);
        break;
      case IceServer::Kind::kUnknown:
        added = FALSE;
        break;
    }
    if (added == FALSE) {
      // The text may hold a password.
      SARNET_LOG(kWarn, "relay: an ICE server is left out, its address is not understood");
    }
  }
}

void PeerConnection::watch_bus() {
  const BusPtr bus(gst_pipeline_get_bus(GST_PIPELINE(pipeline_.get())));
  gst_bus_set_sync_handler(
      bus.get(), &on_message, new std::weak_ptr<PeerConnection>(weak_from_this()),
      [](gpointer data) { delete static_cast<std::weak_ptr<PeerConnection>*>(data); });
}

void PeerConnection::watch_webrtc() {
  connect_weakly(webrtc_, "on-ice-candidate",
                 G_CALLBACK(+[](GstElement*, guint mline, char* text, gpointer data) {
                   const auto peer = lock_weak<PeerConnection>(data);
                   if (!peer) return;
                   peer->post([mline, candidate = std::string(text)](PeerConnection& self) {
                     if (!candidate.empty()) self.observer_.on_local_candidate(mline, candidate);
                   });
                 }),
                 weak_from_this());
  connect_weakly(
      webrtc_, "notify::ice-gathering-state",
      G_CALLBACK(+[](GstElement* webrtc, GParamSpec*, gpointer data) {
        GstWebRTCICEGatheringState state = GST_WEBRTC_ICE_GATHERING_STATE_NEW;
        g_object_get(webrtc, "ice-gathering-state", &state, nullptr);
        const auto peer = lock_weak<PeerConnection>(data);
        if (!peer || state != GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE) return;
        peer->post([](PeerConnection& self) { self.observer_.on_local_candidate(0, ""); });
      }),
      weak_from_this());
  connect_weakly(webrtc_, "notify::connection-state",
                 G_CALLBACK(+[](GstElement*, GParamSpec*, gpointer data) {
                   if (const auto peer = lock_weak<PeerConnection>(data)) {
                     peer->post([](PeerConnection& self) { self.check_state(); });
                   }
                 }),
                 weak_from_this());
}

void PeerConnection::check_state() {
  GstWebRTCPeerConnectionState state = GST_WEBRTC_PEER_CONNECTION_STATE_NEW;
  g_object_get(webrtc_, "connection-state", &state, nullptr);
  const bool connected = state == GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTED;
  if (connected && !connected_) observer_.on_peer_connected();
  connected_ = connected;
  if (state == GST_WEBRTC_PEER_CONNECTION_STATE_FAILED) {
    fail("no way for media to and from the server was found, or it was lost");
  }
}

std::int64_t PeerConnection::running_time_ns() const {
  const GstClockTime time = gst_element_get_current_running_time(pipeline_.get());
  return GST_CLOCK_TIME_IS_VALID(time) ? static_cast<std::int64_t>(time) : -1;
}

void PeerConnection::settle_latency() {
  post([](PeerConnection& self) { gst_bin_recalculate_latency(self.pipeline()); });
}

void PeerConnection::make_ready() { gst_element_set_state(pipeline_.get(), GST_STATE_READY); }

void PeerConnection::play() {
  if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    fail("the media pipeline does not start");
  }
}

GstPromise* PeerConnection::promise(const char* step, const char* type, Next next) {
  return gst_promise_new_with_change_func(
      &PeerConnection::on_promise, new Promise{weak_from_this(), step, type, std::move(next)},
      [](gpointer data) { delete static_cast<Promise*>(data); });
}

// On webrtcbin's thread.
void PeerConnection::on_promise(GstPromise* promise, gpointer data) {
  const auto& pending = *static_cast<Promise*>(data);
  const auto peer = pending.peer.lock();
  const bool replied = gst_promise_wait(promise) == GST_PROMISE_RESULT_REPLIED;
  const GstStructure* reply = replied ? gst_promise_get_reply(promise) : nullptr;
  if (peer && reply != nullptr && gst_structure_has_field(reply, "error")) {
    peer->fail(std::string(pending.step) + ": " + take_error(reply));
  } else if (peer && replied) {
    GstWebRTCSessionDescription* found = nullptr;
    if (pending.type != nullptr && reply != nullptr) {
      gst_structure_get(reply, pending.type, GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &found, nullptr);
    }
    const auto description = std::make_shared<Description>(found);
    if (pending.type != nullptr && found == nullptr) {
      peer->fail(std::string(pending.step) + ": no description was made");
    } else {
      peer->post(
          [next = pending.next, description](PeerConnection& self) { next(self, description); });
    }
  }
  gst_promise_unref(promise);
}

void PeerConnection::create_offer() { create_description("offer"); }

void PeerConnection::create_description(const char* type) {
  const bool is_offer = std::string_view(type) == "offer";
  g_signal_emit_by_name(
      webrtc_, is_offer ? "create-offer" : "create-answer", nullptr,
      promise(is_offer ? "making the offer" : "making the answer", type,
              [type](PeerConnection& self, const std::shared_ptr<Description>& description) {
                const TextPtr text(gst_sdp_message_as_text((*description)->sdp));
                g_signal_emit_by_name(
                    self.webrtc_, "set-local-description", description->get(),
                    self.promise("taking the own description", nullptr, [](auto&, const auto&) {}));
                self.observer_.on_local_description(type, text.get());
              }));
}

void PeerConnection::set_remote(const char* type, const std::string& sdp, Next next) {
  GstSDPMessage* message = nullptr;
  if (gst_sdp_message_new_from_text(sdp.c_str(), &message) != GST_SDP_OK) {
    fail(std::string("the server's ") + type + " is not understood");
    return;
  }
  const bool is_offer = std::string_view(type) == "offer";
  const Description description(gst_webrtc_session_description_new(
      is_offer ? GST_WEBRTC_SDP_TYPE_OFFER : GST_WEBRTC_SDP_TYPE_ANSWER, message));
  g_signal_emit_by_name(
      webrtc_, "set-remote-description", description.get(),
      promise(is_offer ? "taking the server's offer" : "taking the server's answer", nullptr,
              std::move(next)));
}

void PeerConnection::set_remote_answer(const std::string& sdp) {
  set_remote("answer", sdp, [](auto&, const auto&) {});
}

void PeerConnection::add_remote_candidate(unsigned mline, const std::string& candidate) {
  if (!stopped_ && !candidate.empty()) {
    g_signal_emit_by_name(webrtc_, "add-ice-candidate", mline, candidate.c_str());
  }
}

void PeerConnection::open_data_channel(const char* label) {
  GstWebRTCDataChannel* channel = nullptr;
  g_signal_emit_by_name(webrtc_, "create-data-channel", label, nullptr, &channel);
  if (channel == nullptr) {
    SARNET_LOG(kWarn, "relay: no data channel can be opened, captions are left out");
    return;
  }
  channel_.reset(channel);
  connect_weakly(channel, "on-open", G_CALLBACK(+[](GstWebRTCDataChannel*, gpointer data) {
                   if (const auto peer = lock_weak<PeerConnection>(data)) {
                     peer->channel_open_ = true;
                   }
                 }),
                 weak_from_this());
  connect_weakly(channel, "on-close", G_CALLBACK(+[](GstWebRTCDataChannel*, gpointer data) {
                   if (const auto peer = lock_weak<PeerConnection>(data)) {
                     peer->channel_open_ = false;
                   }
                 }),
                 weak_from_this());
}

bool PeerConnection::send_text(const std::string& text) {
  if (!channel_open_ || stopped_) return false;
  gst_webrtc_data_channel_send_string(channel_.get(), text.c_str());
  return true;
}

void PeerConnection::post(std::function<void(PeerConnection&)> task) {
  settings_.loop->post([weak = weak_from_this(), task = std::move(task)] {
    const auto self = weak.lock();
    if (self && !self->stopped_) task(*self);
  });
}

void PeerConnection::fail(const std::string& reason) {
  post([reason](PeerConnection& self) {
    if (!std::exchange(self.failed_, true)) self.observer_.on_peer_failed(reason);
  });
}

void PeerConnection::stop() {
  if (stopped_.exchange(true) || webrtc_ == nullptr) return;
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  // It holds threads of its own until it goes, and the last owner of this object may live on.
  gst_bin_remove(pipeline(), std::exchange(webrtc_, nullptr));
}

}  // namespace sarnet::relay
