#include "relay/media/transport/ice_agent.h"

#include <gio/gio.h>
#include <nice/agent.h>

#include <atomic>
#include <utility>

#include "base/guard.h"
#include "base/log.h"
#include "relay/signalling/glib_handles.h"
#include "relay/signalling/wire_limits.h"

namespace sarnet::relay {
namespace {

constexpr guint kComponent = NICE_COMPONENT_TYPE_RTP;
// A name server that does not answer must not keep the other candidates.
constexpr std::chrono::seconds kLookupLimit{3};
// Nor one that lent a port keep the sockets.
constexpr std::chrono::milliseconds kReleaseLimit{500};

struct FreeCandidate {
  void operator()(NiceCandidate* candidate) const { nice_candidate_free(candidate); }
};
using CandidatePtr = std::unique_ptr<NiceCandidate, FreeCandidate>;

}  // namespace

struct IceAgent::Lookup {
  std::weak_ptr<IceAgent> agent;
  IceEndpoint server;
};

// What libnice calls; the last argument is the agent, which disconnects them before it goes.
struct IceAgent::Callbacks {
  static void on_candidate(NiceAgent*, NiceCandidate* candidate, gpointer data) {
    guarded("ICE", [&] { static_cast<IceAgent*>(data)->tell_candidate(candidate); });
  }
  static void on_gathered(NiceAgent*, guint, gpointer data) {
    auto* self = static_cast<IceAgent*>(data);
    guarded("ICE", [&] {
      if (!std::exchange(self->gathered_, true)) self->observer_.on_ice_candidate("");
    });
  }
  static void on_state(NiceAgent*, guint, guint, guint state, gpointer data) {
    guarded("ICE", [&] { static_cast<IceAgent*>(data)->set_state(state); });
  }
  static void on_packet(NiceAgent*, guint, guint, guint size, gchar* bytes, gpointer data) {
    guarded("ICE", [&] {
      static_cast<IceAgent*>(data)->observer_.on_ice_packet(
          {reinterpret_cast<std::uint8_t*>(bytes), size});
    });
  }
  static void on_address(GObject* resolver, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<Lookup> lookup(static_cast<Lookup*>(data));
    GError* error = nullptr;
    GList* found = g_resolver_lookup_by_name_finish(G_RESOLVER(resolver), result, &error);
    const ErrorPtr owned(error);
    if (const auto self = lookup->agent.lock(); self && self->agent_ != nullptr) {
      guarded("ICE", [&] {
        // Of each family one, the way to the other may be closed; the last is what STUN goes by.
        for (const GSocketFamily family : {G_SOCKET_FAMILY_IPV6, G_SOCKET_FAMILY_IPV4}) {
          for (GList* each = found; each != nullptr; each = each->next) {
            if (g_inet_address_get_family(G_INET_ADDRESS(each->data)) != family) continue;
            const TextPtr text(g_inet_address_to_string(G_INET_ADDRESS(each->data)));
            self->add_server(lookup->server, text.get());
            break;
          }
        }
        if (found == nullptr) {
          SARNET_LOG(kWarn, "relay: an ICE server is left out, its name is not known");
        }
        self->lookup_done();
      });
    }
    g_resolver_free_addresses(found);
  }
};

// An agent that gives back what TURN servers lent it, before it goes.
struct IceAgent::Closing {
  Closing(NiceAgent* agent, const MainLoop& loop) : agent_(agent), under_way_(loop.under_way()) {
    ++*under_way_;
  }
  ~Closing() { finish(); }
  Closing(const Closing&) = delete;
  Closing& operator=(const Closing&) = delete;

  static void begin(NiceAgent* agent, const MainLoop& loop) {
    const auto closing = std::make_shared<Closing>(agent, loop);
    closing->limit_ = MainLoop::Timer(loop, kReleaseLimit, [weak = std::weak_ptr(closing)] {
      if (const auto late = weak.lock()) late->finish();
    });
    nice_agent_close_async(
        agent,
        [](GObject*, GAsyncResult*, gpointer data) {
          const std::unique_ptr<std::shared_ptr<Closing>> done(
              static_cast<std::shared_ptr<Closing>*>(data));
          (*done)->finish();
        },
        new std::shared_ptr<Closing>(closing));
  }

 private:
  void finish() {
    NiceAgent* const agent = std::exchange(agent_, nullptr);
    if (agent == nullptr) return;
    limit_.stop();
    g_object_unref(agent);
    --*under_way_;
  }

  NiceAgent* agent_;
  const std::shared_ptr<std::atomic<int>> under_way_;
  MainLoop::Timer limit_;
};

std::shared_ptr<IceAgent> IceAgent::create(const MainLoop& loop, const Settings& settings,
                                           IceObserver& observer, std::string& error) {
  auto agent = std::make_shared<IceAgent>(observer);
  return agent->build(loop, settings, error) ? agent : nullptr;
}

IceAgent::~IceAgent() { close(); }

bool IceAgent::build(const MainLoop& loop, const Settings& settings, std::string& error) {
  loop_ = &loop;
  const auto options = static_cast<NiceAgentOption>(NICE_AGENT_OPTION_ICE_TRICKLE |
                                                    NICE_AGENT_OPTION_REGULAR_NOMINATION);
  agent_ = nice_agent_new_full(loop.context(), NICE_COMPATIBILITY_RFC5245, options);
  if (agent_ == nullptr) {
    error = "ICE: it cannot be set up";
    return false;
  }
  // Checks of the way go on while it is used. Consent freshness proper would be given up after ten
  // seconds without an answer, which a change of networks takes.
  g_object_set(agent_, "keepalive-conncheck", TRUE, nullptr);
  // It would ask the network's routers, by multicast, to open ports. Media over TCP go through TURN
  // if at all.
  g_object_set(agent_, "upnp", FALSE, "ice-tcp", FALSE, "controlling-mode",
               static_cast<gboolean>(settings.controlling), nullptr);
  if (settings.loopback) {
    NiceAddress address;
    nice_address_init(&address);
    nice_address_set_from_string(&address, "127.0.0.1");
    nice_agent_add_local_address(agent_, &address);
  }
  stream_ = nice_agent_add_stream(agent_, 1);
  g_signal_connect(agent_, "new-candidate-full", G_CALLBACK(&Callbacks::on_candidate), this);
  g_signal_connect(agent_, "candidate-gathering-done", G_CALLBACK(&Callbacks::on_gathered), this);
  g_signal_connect(agent_, "component-state-changed", G_CALLBACK(&Callbacks::on_state), this);
  if (stream_ == 0 || nice_agent_attach_recv(agent_, stream_, kComponent, loop.context(),
                                             &Callbacks::on_packet, this) == FALSE) {
    error = "ICE: it cannot be set up";
    return false;
  }
  for (const std::string& text : settings.servers) {
    if (const auto server = parse_ice_endpoint(text)) {
      look_up(*server);
    } else {
      // The text may hold a password.
      SARNET_LOG(kWarn, "relay: an ICE server is left out, its address is not understood");
    }
  }
  return true;
}

void IceAgent::look_up(const IceEndpoint& server) {
  if (g_hostname_is_ip_address(server.host.c_str()) != FALSE) {
    add_server(server, server.host);
    return;
  }
  if (!cancel_)
    cancel_.reset(g_cancellable_new(), [](GCancellable* each) { g_object_unref(each); });
  ++lookups_;
  const GObjectPtr resolver(G_OBJECT(g_resolver_get_default()));
  // The answer comes to the loop that is this thread's.
  g_resolver_lookup_by_name_async(G_RESOLVER(resolver.get()), server.host.c_str(), cancel_.get(),
                                  &Callbacks::on_address, new Lookup{weak_from_this(), server});
}

void IceAgent::add_server(const IceEndpoint& server, const std::string& address) {
  if (gathering_) return;
  if (!server.is_relay) {
    g_object_set(agent_, "stun-server", address.c_str(), "stun-server-port", server.port, nullptr);
    return;
  }
  has_relay_ = true;
  nice_agent_set_relay_info(agent_, stream_, kComponent, address.c_str(), server.port,
                            server.user.c_str(), server.password.c_str(),
                            server.over_tcp ? NICE_RELAY_TYPE_TURN_TCP : NICE_RELAY_TYPE_TURN_UDP);
}

void IceAgent::lookup_done() {
  --lookups_;
  if (lookups_ == 0 && wants_gathering_ && !start_gathering()) observer_.on_ice_failed();
}

std::string IceAgent::own_credential(bool password) const {
  char* ufrag = nullptr;
  char* pwd = nullptr;
  if (agent_ == nullptr ||
      nice_agent_get_local_credentials(agent_, stream_, &ufrag, &pwd) == FALSE) {
    return {};
  }
  const TextPtr owned_ufrag(ufrag);
  const TextPtr owned_pwd(pwd);
  return password ? pwd : ufrag;
}

std::string IceAgent::ufrag() const { return own_credential(false); }
std::string IceAgent::pwd() const { return own_credential(true); }

bool IceAgent::gather() {
  if (agent_ == nullptr || std::exchange(wants_gathering_, true)) return true;
  if (lookups_ == 0) return start_gathering();
  lookup_limit_ = MainLoop::Timer(*loop_, kLookupLimit, [this] {
    if (!start_gathering()) observer_.on_ice_failed();
  });
  return true;
}

bool IceAgent::start_gathering() {
  lookup_limit_.stop();
  return std::exchange(gathering_, true) || nice_agent_gather_candidates(agent_, stream_) != FALSE;
}

void IceAgent::lead() {
  if (agent_ != nullptr) g_object_set(agent_, "controlling-mode", TRUE, nullptr);
}

bool IceAgent::set_remote(const std::string& ufrag, const std::string& pwd) {
  if (agent_ == nullptr) return false;
  if (ufrag == remote_ufrag_) return true;
  const bool again = !remote_ufrag_.empty();
  remote_ufrag_ = ufrag;
  remote_candidates_ = 0;
  if (again && nice_agent_restart_stream(agent_, stream_) == FALSE) return false;
  if (nice_agent_set_remote_credentials(agent_, stream_, ufrag.c_str(), pwd.c_str()) == FALSE) {
    return false;
  }
  if (!again) return true;
  // The candidates stay what they were; the other side wants them again with the new names.
  GSList* const own = nice_agent_get_local_candidates(agent_, stream_, kComponent);
  for (GSList* each = own; each != nullptr; each = each->next) {
    tell_candidate(static_cast<NiceCandidate*>(each->data));
  }
  g_slist_free_full(own,
                    [](gpointer each) { nice_candidate_free(static_cast<NiceCandidate*>(each)); });
  if (gathered_) observer_.on_ice_candidate("");
  return true;
}

void IceAgent::add_remote(const std::string& candidate) {
  if (agent_ == nullptr) return;
  if (candidate.empty()) {
    nice_agent_peer_candidate_gathering_done(agent_, stream_);
    return;
  }
  if (candidate.size() > kMaxCandidate || ++remote_candidates_ > kMaxCandidates) return;
  const std::string line =
      candidate.starts_with("a=") ? candidate : (std::string("a=").append(candidate));
  const CandidatePtr parsed(nice_agent_parse_remote_candidate_sdp(agent_, stream_, line.c_str()));
  if (!parsed || parsed->component_id != kComponent ||
      parsed->transport != NICE_CANDIDATE_TRANSPORT_UDP) {
    return;
  }
  GSList one{parsed.get(), nullptr};
  nice_agent_set_remote_candidates(agent_, stream_, kComponent, &one);
}

void IceAgent::tell_candidate(NiceCandidate* candidate) {
  const TextPtr text(nice_agent_generate_local_candidate_sdp(agent_, candidate));
  std::string line = text.get();
  if (line.starts_with("a=")) line.erase(0, 2);
  observer_.on_ice_candidate(line);
}

void IceAgent::set_state(unsigned state) {
  if (state == NICE_COMPONENT_STATE_FAILED) {
    if (std::exchange(open_, false)) observer_.on_ice_way(false);
    if (agent_ != nullptr) observer_.on_ice_failed();
    return;
  }
  const bool open = state == NICE_COMPONENT_STATE_CONNECTED || state == NICE_COMPONENT_STATE_READY;
  if (std::exchange(open_, open) != open) observer_.on_ice_way(open);
}

bool IceAgent::send(std::span<const std::uint8_t> packet) {
  return agent_ != nullptr &&
         nice_agent_send(agent_, stream_, kComponent, static_cast<guint>(packet.size()),
                         reinterpret_cast<const gchar*>(packet.data())) > 0;
}

void IceAgent::close() {
  lookup_limit_.stop();
  if (cancel_) g_cancellable_cancel(cancel_.get());
  NiceAgent* const agent = std::exchange(agent_, nullptr);
  if (agent == nullptr) return;
  g_signal_handlers_disconnect_by_data(agent, this);
  if (stream_ != 0) {
    nice_agent_attach_recv(agent, stream_, kComponent, loop_->context(), nullptr, nullptr);
    if (has_relay_) {
      Closing::begin(agent, *loop_);
      return;
    }
    nice_agent_remove_stream(agent, stream_);
  }
  g_object_unref(agent);
}

}  // namespace sarnet::relay
