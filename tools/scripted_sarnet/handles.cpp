#include "handles.h"

#include <array>
#include <chrono>
#include <deque>

#include "script.h"

namespace scripted {
namespace {

constexpr size_t kQuarantine = 16'384;
constexpr size_t kRemembered = 64;
constexpr std::chrono::seconds kLongestWait{20};
constexpr auto kKinds = static_cast<size_t>(Kind::count);
constexpr std::array<std::string_view, kKinds> kKindNames = {
    "session", "session_settings", "publisher", "publisher_settings", "subscriber",
    "stream",  "connection",       "frame",     "capturer",           "device"};

struct OfKind {
  long numbers = 0;
  long live = 0;
  std::deque<std::shared_ptr<Handle>> newest_first;
};

// Only handles with callbacks are looked up again.
bool isRemembered(Kind kind) {
  return kind == Kind::session || kind == Kind::publisher || kind == Kind::subscriber;
}

struct Registry {
  std::mutex mutex;
  std::array<OfKind, kKinds> kinds;
  std::deque<std::shared_ptr<Handle>> retired;
  std::atomic<long> chosen_session{0};

  OfKind& of(Kind kind) { return kinds[static_cast<size_t>(kind)]; }
};

Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

std::string nameOf(Kind kind) { return std::string(kKindNames[static_cast<size_t>(kind)]); }

}  // namespace

bool Gate::mayStart() const { return (bound_ && !closed_) || (rogue_ && script().rogue.load()); }

bool Gate::open() const {
  const std::lock_guard lock(mutex_);
  return mayStart();
}

void Gate::leave() {
  const std::lock_guard lock(mutex_);
  running_.erase(std::find(running_.begin(), running_.end(), std::this_thread::get_id()));
  left_.notify_all();
}

void Gate::bind(bool bound) {
  const std::lock_guard lock(mutex_);
  bound_ = bound;
}

void Gate::close() {
  std::unique_lock lock(mutex_);
  closed_ = true;
  const auto self = std::this_thread::get_id();
  const bool quiet = left_.wait_for(lock, kLongestWait, [&] {
    return std::all_of(running_.begin(), running_.end(), [&](auto id) { return id == self; });
  });
  if (!quiet) script().fault("a delete waited too long for a callback");
}

void adoptHandle(const std::shared_ptr<Handle>& handle) {
  const std::lock_guard lock(registry().mutex);
  auto& [numbers, alive, newest_first] = registry().of(handle->kind);
  handle->number = ++numbers;
  handle->self = handle;
  ++alive;
  if (!isRemembered(handle->kind)) return;
  if (newest_first.size() >= kRemembered) {
    std::erase_if(newest_first, [](const auto& each) { return !each->alive.load(); });
  }
  newest_first.push_front(handle);
}

long live(std::string_view kind) {
  const std::lock_guard lock(registry().mutex);
  const auto found = std::find(kKindNames.begin(), kKindNames.end(), kind);
  return found == kKindNames.end() ? -1 : registry().kinds[found - kKindNames.begin()].live;
}

bool isValid(const Handle* handle, Kind kind, const char* function) {
  if (handle == nullptr) return false;
  if (handle->kind == kind && handle->alive.load()) return true;
  script().fault(std::string(function) + ": " +
                 (handle->kind == kind
                      ? nameOf(kind) + ' ' + std::to_string(handle->number) + " was deleted before"
                      : "not a handle of the kind " + nameOf(kind)));
  return false;
}

bool retire(Handle* handle, Kind kind, const char* function) {
  if (!isValid(handle, kind, function)) return false;
  if (handle->self == nullptr || !handle->alive.exchange(false)) {
    script().fault(std::string(function) +
                   (handle->self ? ": two deletes at once" : ": the handle is borrowed"));
    return false;
  }
  {
    const std::lock_guard lock(registry().mutex);
    --registry().of(kind).live;
  }
  quarantine(std::move(handle->self));
  return true;
}

void quarantine(std::shared_ptr<Handle> handle) {
  if (handle == nullptr) return;
  handle->alive.store(false);
  std::shared_ptr<Handle> oldest;  // destroyed after the lock
  const std::lock_guard lock(registry().mutex);
  auto& retired = registry().retired;
  retired.push_back(std::move(handle));
  if (retired.size() > kQuarantine) {
    oldest = std::move(retired.front());
    retired.pop_front();
  }
}

std::vector<std::shared_ptr<Handle>> handles(Kind kind) {
  const bool rogue = script().rogue.load();
  const std::lock_guard lock(registry().mutex);
  const auto& all = registry().of(kind).newest_first;
  std::vector<std::shared_ptr<Handle>> found;
  std::copy_if(all.begin(), all.end(), std::back_inserter(found),
               [rogue](const auto& each) { return rogue || each->alive.load(); });
  return found;
}

std::shared_ptr<srn_session> currentSession() {
  const long chosen = registry().chosen_session.load();
  return newest<srn_session>(
      [chosen](const auto& session) { return chosen == 0 || session.number == chosen; });
}

std::shared_ptr<srn_publisher> currentPublisher() {
  return newest<srn_publisher>([](const auto&) { return true; });
}

std::shared_ptr<srn_subscriber> subscriberOf(const char* stream_id) {
  return newest<srn_subscriber>([id = text(stream_id)](const auto& subscriber) {
    return id && subscriber.stream.id == id && subscriber.gate.open();
  });
}

void chooseSession(long number) { registry().chosen_session.store(number); }

void forgetHandles() {
  const std::lock_guard lock(registry().mutex);
  for (OfKind& kind : registry().kinds) {
    kind.numbers = 0;
    kind.newest_first.clear();
  }
  registry().chosen_session.store(0);
}

}  // namespace scripted
