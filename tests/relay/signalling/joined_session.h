#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "relay/peer/services.h"
#include "relay/room/relay_engine.h"
#include "relay/room/relay_room.h"
#include "relay/signalling/scripted_server.h"
#include "waiting.h"

namespace sarnet::relay {

using Clock = std::chrono::steady_clock;

// What happened, as "joined", "connection+ a", "stream- a", "failed 1022 TEXT" and the like.
class Story : public SessionSink, public RoomObserver {
 public:
  void joined(const ConnectionInfo&) override { add("joined"); }
  void session_ended() override { add("ended"); }
  void session_failed(int code, const std::string& text) override {
    add("failed " + std::to_string(code) + ' ' + text);
  }
  void participant_joined(const ConnectionInfo& who) override {
    add("connection+ " + who.id + (who.data.empty() ? "" : " " + who.data));
  }
  void participant_left(const ConnectionInfo& who) override { add("connection- " + who.id); }
  void stream_added(const StreamInfo& stream) override {
    add("stream+ " + stream.id + " of " + stream.connection.id + ' ' + stream.name);
  }
  void stream_removed(const StreamInfo& stream) override { add("stream- " + stream.id); }

  Journal log;

 private:
  void add(const std::string& event) { log.add(event); }
};

// An engine that joins a server's room, and what it told. Of one thread.
class JoinedSession {
 public:
  JoinedSession() {
    static std::once_flag lent;  // sessions are made on several threads at once
    std::call_once(lent, set_services, RelayServices{start_thread, nullptr, nullptr});
    // Out of the way of a busy machine; who tests a limit shortens it.
    limits_.connect_limit = kDeadline;
    limits_.answer_limit = kDeadline;
    limits_.keepalive = kDeadline;
    limits_.reconnect_limit = kDeadline;
    limits_.refusal_limit = kDeadline;
  }
  ~JoinedSession() {
    leave();
    join_all(other_threads);
  }
  JoinedSession(const JoinedSession&) = delete;
  JoinedSession& operator=(const JoinedSession&) = delete;

  void join(unsigned port) {
    HostAddress address;
    address.kind = HostAddress::Kind::kRelay;
    address.host = "127.0.0.1";
    address.port = static_cast<int>(port);
    address.secure = false;
    engine_ = make_engine(address, limits_);
    JoinRequest request;
    request.session_id = "room";
    request.token = "token";
    engine_->join(request, story_);
  }
  // Waits until the sessions' threads have ended; tells how long it took.
  std::chrono::milliseconds leave() {
    const auto start = Clock::now();
    if (engine_) engine_->leave();
    engine_.reset();
    join_all(session_threads);
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  }

  ScriptedServer server_;
  JanusSettings limits_;
  const std::shared_ptr<Story> story_ = std::make_shared<Story>();
  std::shared_ptr<Engine> engine_;

 private:
  // The library has threads started on the thread that joins.
  static inline thread_local std::vector<std::thread> session_threads;
  static inline thread_local std::vector<std::thread> other_threads;

  static void start_thread(const char* name, std::function<void()> body) {
    const bool is_session = std::string_view(name) == "srn-relay";
    (is_session ? session_threads : other_threads).emplace_back(std::move(body));
  }
  static void join_all(std::vector<std::thread>& all) {
    for (std::thread& thread : all) thread.join();
    all.clear();
  }
};

class Signalling : public testing::Test, protected JoinedSession {};

}  // namespace sarnet::relay
