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
  std::string token;    // goes with every request; may be empty

  std::chrono::milliseconds connect_limit{8000};
  std::chrono::milliseconds answer_limit{8000};
  // How often the server is asked for a sign of life. It is taken as lost when a whole period
  // passed without one.
  std::chrono::milliseconds keepalive{4000};
  // How long a broken connection may take to be resumed.
  std::chrono::milliseconds reconnect_limit{5000};
};

class JanusObserver {
 public:
  virtual ~JanusObserver() = default;
  // What is not an answer; `handle` is 0 when it is about the whole session.
  virtual void on_notice(std::uint64_t handle, const json& message) = 0;
  // The connection broke and was resumed; notices of the meantime are lost.
  virtual void on_resumed() = 0;
  // Lost for good, after it was open. Once, and the last; nothing that was asked is answered.
  virtual void on_lost(const Failure& failure) = 0;
};

// A session with the server over a WebSocket: requests and their answers, signs of life, and the
// resumption of the session over a new connection when one breaks. What is asked meanwhile is sent
// afterwards. The main loop's thread alone; answers and notices never come from inside a call.
class JanusClient {
 public:
  using Answer = std::function<void(const JanusReply&)>;

  // The loop and the observer must outlive it.
  JanusClient(MainLoop& loop, JanusSettings settings, JanusObserver& observer);
  ~JanusClient();
  JanusClient(const JanusClient&) = delete;
  JanusClient& operator=(const JanusClient&) = delete;

  // Connects and creates a session. `done` gets what went wrong, or null. Once.
  void open(std::function<void(const Failure*)> done);
  // `handle` is 0 when the reply is not ok.
  void attach(const std::string& plugin,
              std::function<void(const JanusReply&, std::uint64_t handle)> answer);
  void detach(std::uint64_t handle);
  // An empty sdp: none. `answer` may be null; what is not `expected` is told it as malformed.
  void message(std::uint64_t handle, json body, const std::string& sdp_type, const std::string& sdp,
               Answer answer, const Expected& expected = {});
  // An empty candidate: there are no more.
  void trickle(std::uint64_t handle, unsigned mline, const std::string& candidate);
  // Ends the session at the server, with all its handles, and the connection. `done` comes within
  // `limit`; nothing else does. Once.
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
  void connected();
  void received(std::string_view text);
  void connection_failed(const std::string& reason, JanusSocket::Loss loss);
  void session_created(const JanusReply& reply);
  void broken(const std::string& reason);
  void claim();
  void resumed();
  void lost(const std::string& reason);
  void check_life();
  void fail_opening(const Failure& failure);
  void end();

  // Gives the transaction's name. Sent at once on an open socket if `now`, else in its turn.
  void request(json message, Answer answer, const Expected& expected = {},
               bool acknowledged_is_answer = false, bool now = false);
  void answer(const std::string& transaction, const JanusReply& reply);

  MainLoop& loop_;
  const JanusSettings settings_;
  JanusObserver& observer_;

  State state_ = State::kIdle;
  std::shared_ptr<JanusSocket> socket_;
  std::uint64_t session_ = 0;
  std::uint64_t next_transaction_ = 1;
  std::map<std::string, Pending> pending_;
  std::vector<std::string> unsent_;
  std::function<void(const Failure*)> opened_;
  std::function<void()> closed_;
  std::string break_reason_;
  int breaks_ = 0;      // since the last calm period
  bool heard_ = false;  // since the last sign of life was asked for
  MainLoop::Timer connect_timer_;
  MainLoop::Timer break_timer_;
  MainLoop::Timer retry_timer_;
  MainLoop::Timer life_timer_;
  MainLoop::Timer close_timer_;
};

}  // namespace sarnet::relay
