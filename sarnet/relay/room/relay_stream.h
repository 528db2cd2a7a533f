#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "relay/peer/peer.h"
#include "relay/room/room_access.h"
#include "relay/signalling/relay_failure.h"

namespace sarnet::relay {

// One stream between the program and the server: negotiation over a handle of the server, by a peer
// of the derived class. Any failure ends it, once. The main loop's thread alone; held by the
// session until it ends.
class RelayStream : public PeerObserver, public std::enable_shared_from_this<RelayStream> {
 public:
  // Called once it failed, after the program was notified.
  using Over = std::function<void(const RelayStream&)>;

  std::uint64_t handle() const { return handle_; }
  // The machine's addresses or routes have changed.
  void network_changed();
  // The server can be asked again, after a break.
  void resumed();
  // A notice of the server on the handle.
  virtual void notice(const json& message);
  // Ends the media; takes some milliseconds. May be repeated.
  virtual void stop();
  // Gives the handle back to the server.
  virtual void withdraw();

  void on_local_candidate(unsigned mline, const std::string& candidate) override;
  void on_peer_connected() override;
  void on_peer_interrupted() override;
  void on_peer_failed(const std::string& reason) override;

 protected:
  // How its failures are reported.
  struct Words {
    const char* purpose;  // "publishing"
    const char* subject;  // "the published stream"
    int timed_out;
    int webrtc_error;
    Failure (*refused)(const std::string& step, const JanusReply& reply);
  };

  RelayStream(RoomAccess& access, Words words, Over over)
      : access_(access), words_(words), over_(std::move(over)) {}

  // Attaches a handle of its own when `handle` is 0. Starts the time limit of the media connection.
  void begin(std::uint64_t handle, std::function<void()> then);
  // `then` is not called when the server refuses or the stream was stopped. A refusal ends the
  // stream, unless it is about another way for a connection that is interrupted.
  void ask(const char* step, json body, std::function<void(const JanusReply&)> then,
           const Expected& expected, const std::string& sdp_type = "", const std::string& sdp = "");
  void fail(const Failure& failure);
  bool stopped() const { return stopped_; }

  // The program's side.
  virtual void connected() = 0;
  // Seeks another way for the connection.
  virtual void restart() = 0;
  // As the peer does.
  virtual void check_way() = 0;
  virtual void report(const Failure& failure) = 0;
  virtual void add_remote_candidate(unsigned mline, const std::string& candidate) = 0;

  RoomAccess& access_;

 private:
  void seek_way();

  const Words words_;
  const Over over_;
  std::uint64_t handle_ = 0;
  bool connected_ = false;  // once
  bool interrupted_ = false;
  bool hung_up_ = false;  // by the server
  int candidates_ = 0;    // of the server
  bool stopped_ = false;
  MainLoop::Timer limit_;
  MainLoop::Timer retry_;
};

}  // namespace sarnet::relay
