#pragma once

#include <libsoup/soup.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "relay/signalling/janus_reply.h"
#include "relay/signalling/janus_socket.h"
#include "relay/signalling/main_loop.h"
#include "waiting.h"

// A signalling server on 127.0.0.1 that says what a test has it say. Everything goes well until the
// test changes it. Any thread.
class ScriptedServer {
 public:
  using json = sarnet::relay::json;
  // What is answered; null: nothing at all; {"raw": ...}: that, with nothing put around it.
  using Rule = std::function<json(const json& request)>;
  // Makes of a message the texts that are sent in its place. On the server's thread.
  using Tamper = std::function<std::vector<std::string>(const json& message)>;
  static constexpr std::uint64_t kHandle = 100;  // of the first attach

  ScriptedServer();
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  unsigned port() const { return port_; }
  // For requests of that name: the plug-in's ("join") or the server's own ("create a session" is
  // "janus create").
  void rule(const std::string& name, Rule rule);
  void refuse(const std::string& name, int code);
  void ignore(const std::string& name);
  // Says something about the room.
  void notice(const json& data);
  void tamper(Tamper tamper);
  // A frame with that first byte.
  static std::string frame(unsigned char kind, const std::string& text);
  // Writes to the connections again and again; gives how often they took it.
  int repeat(const std::string& bytes, int times);
  // Closes all connections; with `shut`, no new one is taken until it is opened again.
  void drop(bool shut);
  void reopen();
  // The names of what was asked, in order.
  Journal asked;

 private:
  static void on_connection(SoupServer*, SoupServerMessage*, const char*,
                            SoupWebsocketConnection* connection, gpointer self);
  static void on_message(SoupWebsocketConnection* connection, int, GBytes* bytes, gpointer self);
  void answer(SoupWebsocketConnection* connection, const json& request);
  void send(SoupWebsocketConnection* connection, const json& message);
  static bool write(SoupWebsocketConnection* connection, const std::string& bytes);
  void listen();
  void run_on_loop(const std::function<void()>& task);

  sarnet::relay::MainLoop loop_;
  // On the loop alone.
  sarnet::relay::GObjectHandle<SoupServer> server_;
  std::vector<sarnet::relay::GObjectHandle<SoupWebsocketConnection>> connections_;
  std::uint64_t next_handle_ = kHandle;
  Tamper tamper_;
  bool shut_ = false;
  unsigned port_ = 0;

  std::mutex mutex_;
  std::map<std::string, Rule> rules_;
  std::thread thread_;
};
