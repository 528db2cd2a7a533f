#include "relay/signalling/scripted_server.h"

#include <chrono>
#include <future>

using sarnet::relay::member;
using sarnet::relay::text_of;

ScriptedServer::ScriptedServer() : thread_([this] { loop_.run(); }) {
  rule("janus create", [](const json&) { return json{{"data", {{"id", 77}}}}; });
  rule("janus claim", [](const json&) { return json::object(); });
  rule("janus detach", [](const json&) { return json::object(); });
  rule("janus destroy", [](const json&) { return json::object(); });
  rule("janus keepalive", [](const json&) { return json{{"janus", "ack"}}; });
  rule("janus attach", [this](const json&) { return json{{"data", {{"id", next_handle_++}}}}; });
  rule("join", [](const json&) { return json{{"videoroom", "joined"}}; });
  rule("listparticipants", [](const json&) {
    return json{{"videoroom", "participants"}, {"participants", json::array()}};
  });
  run_on_loop([this] { listen(); });
}

ScriptedServer::~ScriptedServer() {
  run_on_loop([this] {
    connections_.clear();
    server_.reset();
  });
  loop_.quit();
  thread_.join();
}

void ScriptedServer::listen() {
  server_.reset(soup_server_new(nullptr, nullptr));
  char protocol[] = "janus-protocol";
  char* protocols[] = {protocol, nullptr};
  soup_server_add_websocket_handler(server_.get(), "/", nullptr, protocols, &on_connection, this,
                                    nullptr);
  GError* error = nullptr;
  soup_server_listen_local(server_.get(), port_, SOUP_SERVER_LISTEN_IPV4_ONLY, &error);
  g_assert_no_error(error);
  GSList* const uris = soup_server_get_uris(server_.get());
  port_ = static_cast<unsigned>(g_uri_get_port(static_cast<GUri*>(uris->data)));
  g_slist_free_full(uris, [](gpointer uri) { g_uri_unref(static_cast<GUri*>(uri)); });
}

void ScriptedServer::run_on_loop(const std::function<void()>& task) {
  std::promise<void> done;
  loop_.post([&] {
    task();
    done.set_value();
  });
  done.get_future().wait();
}

void ScriptedServer::rule(const std::string& name, Rule rule) {
  const std::lock_guard lock(mutex_);
  rules_[name] = std::move(rule);
}

void ScriptedServer::refuse(const std::string& name, int code) {
  const bool is_own = name.starts_with("janus ");
  rule(name, [=](const json&) {
    if (is_own) {
      return json{{"janus", "error"}, {"error", {{"code", code}, {"reason", "not today"}}}};
    }
    return json{{"videoroom", "event"}, {"error_code", code}, {"error", "not today"}};
  });
}

void ScriptedServer::ignore(const std::string& name) {
  rule(name, [](const json&) { return json(); });
}

void ScriptedServer::on_connection(SoupServer*, SoupServerMessage*, const char*,
                                   SoupWebsocketConnection* connection, gpointer data) {
  auto& self = *static_cast<ScriptedServer*>(data);
  if (self.shut_) {
    g_io_stream_close(soup_websocket_connection_get_io_stream(connection), nullptr, nullptr);
    return;
  }
  g_signal_connect(connection, "message", G_CALLBACK(&on_message), &self);
  self.connections_.emplace_back(SOUP_WEBSOCKET_CONNECTION(g_object_ref(connection)));
}

void ScriptedServer::on_message(SoupWebsocketConnection* connection, int, GBytes* bytes,
                                gpointer data) {
  gsize size = 0;
  const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
  static_cast<ScriptedServer*>(data)->answer(connection, json::parse(text, text + size));
}

void ScriptedServer::answer(SoupWebsocketConnection* connection, const json& request) {
  const std::string kind = text_of(request, "janus");
  const bool is_message = kind == "message";
  const std::string name =
      is_message ? text_of(member(request, "body"), "request") : "janus " + kind;
  asked.add(name);
  Rule rule;
  {
    const std::lock_guard lock(mutex_);
    if (const auto found = rules_.find(name); found != rules_.end()) rule = found->second;
  }
  json reply = rule ? rule(request) : json();
  if (reply.is_null()) return;
  if (reply.contains("raw")) {
    reply = reply["raw"];
  } else if (is_message) {
    send(connection, {{"janus", "ack"}, {"transaction", request["transaction"]}});
    reply = {{"janus", "event"},
             {"sender", request["handle_id"]},
             {"plugindata", {{"data", std::move(reply)}}}};
  } else if (!reply.contains("janus")) {
    reply["janus"] = "success";
  }
  if (reply.is_object()) reply["transaction"] = request["transaction"];
  send(connection, reply);
}

void ScriptedServer::send(SoupWebsocketConnection* connection, const json& message) {
  const auto texts = tamper_ ? tamper_(message) : std::vector{message.dump()};
  for (const std::string& text : texts) write(connection, frame(0x81, text));
}

std::string ScriptedServer::frame(unsigned char kind, const std::string& text) {
  const std::uint64_t size = text.size();
  std::string frame{static_cast<char>(kind)};
  const int bytes = size < 126 ? 0 : size < 65536 ? 2 : 8;
  frame += static_cast<char>(bytes == 0 ? size : bytes == 2 ? 126 : 127);
  for (int i = bytes - 1; i >= 0; --i) frame += static_cast<char>(size >> (8 * i));
  return frame + text;
}

bool ScriptedServer::write(SoupWebsocketConnection* connection, const std::string& bytes) {
  GOutputStream* const stream =
      g_io_stream_get_output_stream(soup_websocket_connection_get_io_stream(connection));
  return g_output_stream_write_all(stream, bytes.data(), bytes.size(), nullptr, nullptr, nullptr) !=
         FALSE;
}

int ScriptedServer::repeat(const std::string& bytes, int times) {
  int written = 0;
  run_on_loop([&] {
    for (const auto& each : connections_) {
      while (written < times && write(each.get(), bytes)) ++written;
    }
  });
  return written;
}

void ScriptedServer::tamper(Tamper tamper) {
  run_on_loop([&] { tamper_ = std::move(tamper); });
}

void ScriptedServer::notice(const json& data) {
  run_on_loop([&] {
    for (const auto& each : connections_) {
      send(each.get(), {{"janus", "event"}, {"sender", kHandle}, {"plugindata", {{"data", data}}}});
    }
  });
}

void ScriptedServer::drop(bool shut) {
  run_on_loop([&] {
    shut_ = shut;
    for (const auto& each : connections_) {
      g_io_stream_close(soup_websocket_connection_get_io_stream(each.get()), nullptr, nullptr);
    }
    connections_.clear();
  });
}

void ScriptedServer::reopen() {
  run_on_loop([&] { shut_ = false; });
}
