#pragma once

#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "relay/media/transport/ice_endpoint.h"
#include "relay/signalling/main_loop.h"

// libnice's, which the sources alone need to know.
struct _NiceAgent;
struct _NiceCandidate;
struct _GCancellable;

namespace sarnet::relay {

// Told by an IceAgent on the loop's thread; packets and states may come from inside its calls.
class IceObserver {
 public:
  virtual ~IceObserver() = default;
  // "candidate:..."; an empty text: there will be no more.
  virtual void on_ice_candidate(const std::string& candidate) = 0;
  // Whether packets get through; told when it changes.
  virtual void on_ice_way(bool open) = 0;
  // All ways were tried, or the one there was does not answer any more.
  virtual void on_ice_failed() = 0;
  // May be changed in place; valid during the call, which may let go of the agent.
  virtual void on_ice_packet(std::span<std::uint8_t> packet) = 0;
};

// A way for packets through the network: ICE (RFC 8445) with candidates that trickle both ways, one
// component. Everything runs on the loop's thread, the agent has none of its own. The way is
// checked every 20 seconds; a break of half a minute heals by itself, a longer one may be its end.
class IceAgent : public std::enable_shared_from_this<IceAgent> {
 public:
  struct Settings {
    bool controlling = false;  // who made the first offer
    bool loopback = false;     // 127.0.0.1 alone
    std::vector<std::string> servers;
  };

  // Null, and `error` set, when there is no agent to be had.
  static std::shared_ptr<IceAgent> create(const MainLoop& loop, const Settings& settings,
                                          IceObserver& observer, std::string& error);
  explicit IceAgent(IceObserver& observer) : observer_(observer) {}
  ~IceAgent();
  IceAgent(const IceAgent&) = delete;
  IceAgent& operator=(const IceAgent&) = delete;

  std::string ufrag() const;
  std::string pwd() const;

  // Looks for candidates. False when there is not one address to be had.
  bool gather();
  // Leads the choice of a way although the other side offered, as one that is lite cannot.
  void lead();
  // New ones later than the first restart the search, with new ones of our own.
  bool set_remote(const std::string& ufrag, const std::string& pwd);
  // An empty text: no more. What is not understood is passed over.
  void add_remote(const std::string& candidate);
  // False when it is lost: there is no way, or the way is full.
  bool send(std::span<const std::uint8_t> packet);
  // The observer is left alone from now on. May be called from inside it.
  void close();

 private:
  struct Lookup;
  struct Callbacks;
  struct Closing;

  bool build(const MainLoop& loop, const Settings& settings, std::string& error);
  void look_up(const IceEndpoint& server);
  void add_server(const IceEndpoint& server, const std::string& address);
  void lookup_done();
  bool start_gathering();
  void tell_candidate(_NiceCandidate* candidate);
  void set_state(unsigned state);
  std::string own_credential(bool password) const;

  IceObserver& observer_;
  const MainLoop* loop_ = nullptr;
  _NiceAgent* agent_ = nullptr;
  unsigned stream_ = 0;
  std::shared_ptr<_GCancellable> cancel_;
  unsigned lookups_ = 0;
  bool wants_gathering_ = false;
  bool has_relay_ = false;
  bool gathering_ = false;
  bool gathered_ = false;
  bool open_ = false;
  std::string remote_ufrag_;
  int remote_candidates_ = 0;
  MainLoop::Timer lookup_limit_;
};

}  // namespace sarnet::relay
