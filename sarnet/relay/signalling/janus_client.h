#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "relay/signalling/janus_reply.h"
#include "relay/signalling/janus_socket.h"
#include "relay/signalling/main_loop.h"
#include "relay/signalling/relay_failure.h"

namespace sarnet::relay {

struct JanusSettings {
  std::string url;
  std::string ca_file;  // PEM; empty: the system's authorities
  std::string token;    // sent with every request; may be empty

  std::chrono::milliseconds connect_limit{8000};
  std::chrono::milliseconds answer_limit{8000};
  // How often a keep-alive is sent. The server counts as lost when a whole period passes with no
  // message from it.
  std::chrono::milliseconds keepalive{4000};
  // How long resuming a broken connection may take, and how long if its machine refuses. The server
  // keeps the session for a minute, and for five seconds if it was told of the break.
  std::chrono::milliseconds reconnect_limit{20000};
  std::chrono::milliseconds refusal_limit{5000};
};

class JanusObserver {
 public:
  virtual ~JanusObserver() = default;
  // Any message but a reply; `handle` is 0 when it is about the whole session.
  virtual void on_notice(std::uint64_t handle, const json& message) = 0;
  // The connection broke and was resumed; notices in between are lost.
  virtual void on_resumed() = 0;
  // Lost for good, after it was open. Called once, as the last; pending requests get no reply.
  virtual void on_lost(const Failure& failure) = 0;
};

// A session with the server over a WebSocket: requests and replies, keep-alives, and resumption
// over a new connection when one breaks. Requests made meanwhile are sent afterwards. The main
// loop's thread alone; replies and notices never come from inside a call.
class JanusClient {
 public:
  using Answer = std::function<void(const JanusReply&)>;

  // The loop and the observer must outlive it.
  JanusClient(MainLoop& loop, JanusSettings settings, JanusObserver& observer);
  ~JanusClient();
  JanusClient(const JanusClient&) = delete;
  JanusClient& operator=(const JanusClient&) = delete;

  // Connects and creates a session. `done` gets the failure, or null. Once.
  void open(std::function<void(const Failure*)> done);
  // `handle` is 0 when the reply is not ok.
  void attach(const std::string& plugin,
              std::function<void(const JanusReply&, std::uint64_t handle)> answer);
  void detach(std::uint64_t handle);
  // An empty sdp: none. `answer` may be null; it gets an unexpected reply as malformed.
  void message(std::uint64_t handle, json body, const std::string& sdp_type, const std::string& sdp,
               Answer answer, const Expected& expected = {});
  // An empty candidate: there are no more.
  void trickle(std::uint64_t handle, unsigned mline, const std::string& candidate);
  // Looks at once whether the connection still stands: the machine's addresses have changed.
  void network_changed();
  // Whether requests go out now.
  bool is_open() const { return state_ == State::kOpen && !closed_; }
  // Ends the session at the server, with all its handles, and the connection. Calls `done` within
  // `limit`, and nothing else. Once.
  void close(std::chrono::milliseconds limit, std::function<void()> done);

 private:
  enum class State { kIdle, kConnecting, kOpen, kBroken, kClosed };
  struct Pending {
    Answer answer;
    Expected expected;
    bool acknowledged_is_answer = false;
    MainLoop::Timer limit;
  };

  void connect();
  void try_again();
  void connected();
  void heard(unsigned socket, const std::string& transaction);
  void received(unsigned socket, std::string_view text);
  void socket_failed(unsigned socket, const std::string& reason, JanusSocket::Loss loss);
  void connection_failed(const std::string& reason, JanusSocket::Loss loss);
  void session_created(const JanusReply& reply);
  void broken(const std::string& reason);
  void fell_silent(const std::string& reason);
  void claim();
  void resumed();
  void lost(const std::string& reason);
  void check_life();
  void fail_opening(const Failure& failure);
  void end();

  // Returns the transaction's name. Sent at once on an open socket if `now`, else in its turn.
  void request(json message, Answer answer, const Expected& expected = {},
               bool acknowledged_is_answer = false, bool now = false);
  void answer(const std::string& transaction, const JanusReply& reply);

  MainLoop& loop_;
  const JanusSettings settings_;
  JanusObserver& observer_;

  State state_ = State::kIdle;
  std::shared_ptr<JanusSocket> socket_;
  unsigned socket_number_ = 0;
  // That fell silent: until there is another the server is not told that it broke, and it has
  // recovered once the last request on it is answered.
  std::shared_ptr<JanusSocket> silent_socket_;
  unsigned silent_number_ = 0;
  bool hastened_ = false;  // another attempt, since it was heard
  std::uint64_t session_ = 0;
  std::uint64_t next_transaction_ = 1;
  std::map<std::string, Pending> pending_;
  std::vector<std::pair<std::string, std::string>> unsent_;  // transactions and texts
  std::string last_sent_;                                    // transaction, while it was open
  std::function<void(const Failure*)> opened_;
  std::function<void()> closed_;
  std::string break_reason_;
  bool claimed_ = false;  // on this socket
  int breaks_ = 0;        // since the last calm period
  int attempts_ = 0;      // in this break
  bool heard_ = false;    // since the last keep-alive
  MainLoop::Timer connect_timer_;
  MainLoop::Timer break_timer_;
  MainLoop::Timer refusal_timer_;
  MainLoop::Timer attempt_timer_;
  MainLoop::Timer retry_timer_;
  MainLoop::Timer probe_timer_;
  MainLoop::Timer life_timer_;
  MainLoop::Timer close_timer_;
};

}  // namespace sarnet::relay
