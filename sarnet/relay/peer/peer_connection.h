#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "relay/media/transport/dtls_identity.h"
#include "relay/peer/gst_handles.h"
#include "relay/signalling/main_loop.h"

// The media stack's header warns of an interface that may change; the names are enough here.
struct _GstWebRTCDataChannel;
struct _GstWebRTCSessionDescription;

namespace sarnet::relay {

// What both kinds of peer connection need to know.
struct PeerSettings {
  // Where observers are told and the calls of a peer are made.
  std::shared_ptr<MainLoop> loop;
  // Talks over 127.0.0.1 alone, for a server on this machine.
  bool loopback = false;
  // How long received packets may wait for those that overtook them, in milliseconds.
  unsigned jitter_ms = 200;
  // "stun:host:port" and "turn:user:password@host:port", the latter also with "?transport=tcp".
  std::vector<std::string> ice_servers;
  // What the peers of a session show of themselves; null: each has its own made.
  std::shared_ptr<const DtlsIdentity> identity;
};

// Told by one peer on the main loop's thread, never from inside a call to that peer, never after
// its stop(). Must stay valid until then.
class PeerObserver {
 public:
  virtual ~PeerObserver() = default;
  // `type` is "offer" or "answer"; candidates follow one by one.
  virtual void on_local_description(const std::string& type, const std::string& sdp) = 0;
  // An empty candidate: there will be no more.
  virtual void on_local_candidate(unsigned mline, const std::string& candidate) = 0;
  // Media may flow. Again after a break that healed.
  virtual void on_peer_connected() = 0;
  // The connection is of no more use; the text says at which step it failed. Once.
  virtual void on_peer_failed(const std::string& reason) = 0;
};

// Whether every part of the media stack that a peer needs is installed; `error` names what is
// missing. Any thread; prepares the media stack when it is called first.
bool media_stack_ready(std::string& error);
// Has it prepared on a thread of the library's, if nobody did yet, so that later it is at hand.
void warm_media_stack();

// A pipeline around one webrtcbin: descriptions, candidates, the data channel and the end. What the
// media need is added to the pipeline by the owner. The main loop's thread, unless said otherwise.
// The stack's own threads reach it through weak pointers and go on by posting to the main loop.
class PeerConnection : public std::enable_shared_from_this<PeerConnection> {
 public:
  // Null, and `error` set, when the pipeline cannot be made.
  static std::shared_ptr<PeerConnection> create(const PeerSettings& settings,
                                                PeerObserver& observer, std::string& error);
  PeerConnection(const PeerSettings& settings, PeerObserver& observer);
  ~PeerConnection();
  PeerConnection(const PeerConnection&) = delete;
  PeerConnection& operator=(const PeerConnection&) = delete;

  // Borrowed, valid until stop().
  GstBin* pipeline() const { return GST_BIN(pipeline_.get()); }
  GstElement* webrtc() const { return webrtc_; }

  // Any thread: nanoseconds since the pipeline began to play, or -1.
  std::int64_t running_time_ns() const;

  void make_ready();
  void play();

  void create_offer();
  void set_remote_answer(const std::string& sdp);
  void add_remote_candidate(unsigned mline, const std::string& candidate);

  // Before the offer, or before the answer.
  void open_data_channel(const char* label);
  // Any thread. Lost, and false, while the channel is not open.
  bool send_text(const std::string& text);

  // Reports a failure once, through the loop. Any thread.
  void fail(const std::string& reason);
  // Any thread: has the pipeline's elements told what delay they all make together. Senders'
  // reports need it, by which receivers play sound and pictures in step.
  void settle_latency();
  void stop();
  // Any thread.
  bool stopped() const { return stopped_; }

 private:
  struct ReleaseDescription {
    void operator()(_GstWebRTCSessionDescription* description) const;
  };
  using Description = std::unique_ptr<_GstWebRTCSessionDescription, ReleaseDescription>;
  using ChannelPtr = std::unique_ptr<_GstWebRTCDataChannel, Release<g_object_unref>>;
  // What follows on the main loop once webrtcbin has done what it was asked; a refusal fails the
  // peer.
  using Next = std::function<void(PeerConnection&, const std::shared_ptr<Description>&)>;
  struct Promise;

  bool build(std::string& error);
  void configure_ice();
  void watch_bus();
  void watch_webrtc();
  void create_description(const char* type);
  void set_remote(const char* type, const std::string& sdp, Next next);
  // webrtcbin's promise, which carries a description of that type when there is a type.
  GstPromise* promise(const char* step, const char* type, Next next);
  static void on_promise(GstPromise* promise, gpointer data);
  void post(std::function<void(PeerConnection&)> task);
  void check_state();

  const PeerSettings settings_;
  PeerObserver& observer_;
  ElementPtr pipeline_;
  GstElement* webrtc_ = nullptr;  // the pipeline's
  ChannelPtr channel_;            // set before the pipeline plays
  std::atomic<bool> channel_open_{false};
  std::atomic<bool> stopped_{false};
  bool failed_ = false;
  bool connected_ = false;
};

}  // namespace sarnet::relay
