#include "api/library.h"

#include <chrono>

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
  // Subscribers and publishers first, so that a capturer is destroyed while its session exists.
  for (const auto& subscriber : subscribers.all()) subscriber->close();
  for (const auto& publisher : publishers.all()) publisher->close();
  for (const auto& session : sessions.all()) session->close();
  audio_device.shut_down();
  keeper.join_all(std::chrono::seconds(10));
  return true;
}

}  // namespace sarnet
