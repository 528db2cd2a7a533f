#include "session/library.h"

#include <chrono>
#include <cstdio>
#include <random>

#include "base/log.h"
#include "base/thread_keeper.h"

namespace sarnet {

Library& Library::instance() {
  static auto* const library = new Library;
  return *library;
}

void Library::init() { initialised_ = true; }

bool Library::initialised() const { return initialised_; }

bool Library::destroy() {
  auto& keeper = ThreadKeeper::instance();
  if (keeper.on_own_thread()) return false;
  initialised_ = false;
  // Subscribers and publishers first, so that a capturer is destroyed while its session stands.
  for (const auto& subscriber : subscribers.all()) subscriber->close();
  for (const auto& publisher : publishers.all()) publisher->close();
  for (const auto& session : sessions.all()) session->close();
  audio_device.shut_down();
  keeper.join_all(std::chrono::seconds(10));
  return true;
}

std::string Library::new_id(const char* kind) {
  // Unique among processes too, so that recordings and logs of several can be laid side by side.
  static const unsigned process = std::random_device{}();
  char text[64];
  std::snprintf(text, sizeof text, "%s-%08x-%llu", kind, process,
                static_cast<unsigned long long>(next_id_.fetch_add(1)));
  return text;
}

}  // namespace sarnet
