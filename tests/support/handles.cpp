#include "handles.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <string_view>

#include "script.h"

namespace scripted {
namespace {

constexpr size_t kQuarantine = 16'384;
constexpr size_t kRemembered = 64;
constexpr std::chrono::seconds kLongestWait{20};

constexpr std::array<const char*, static_cast<size_t>(Kind::count)> kKindNames = {
    "session", "session_settings", "publisher", "publisher_settings", "subscriber",
    "stream",  "connection",       "frame",     "capturer",           "device"};

struct Registry {
  std::array<std::atomic<long>, kKindNames.size()> numbers{};
  std::array<std::atomic<long>, kKindNames.size()> live{};
  std::mutex quarantine_mutex;
  std::deque<std::shared_ptr<Handle>> retired;
  std::mutex mutex;
  std::vector<std::shared_ptr<srn_session>> sessions;
  std::vector<std::shared_ptr<srn_publisher>> publishers;
  std::vector<std::shared_ptr<srn_subscriber>> subscribers;
  long chosen_session = 0;
};

Registry& registry() {
  static Registry* const instance = new Registry;
  return *instance;
}

// Keeps the newest: all that live, and a few that were deleted, for rogue mode.
template <class T>
void remember(std::vector<std::shared_ptr<T>>& list, const std::shared_ptr<T>& handle) {
  const std::lock_guard lock(registry().mutex);
  if (list.size() >= kRemembered) {
    std::erase_if(list, [](const auto& each) { return !each->alive.load(); });
  }
  list.push_back(handle);
}

template <class T, class Wanted>
std::shared_ptr<T> newest(const std::vector<std::shared_ptr<T>>& list, Wanted wanted) {
  const bool rogue = script().rogue.load();
  const std::lock_guard lock(registry().mutex);
  const auto found = std::find_if(list.rbegin(), list.rend(), [&](const auto& each) {
    return (rogue || each->alive.load()) && wanted(*each);
  });
  return found == list.rend() ? nullptr : *found;
}

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

long nextNumber(Kind kind) { return ++registry().numbers[static_cast<size_t>(kind)]; }

void countLive(Kind kind, int change) {
  registry().live[static_cast<size_t>(kind)].fetch_add(change);
}

long live(const char* kind) {
  const auto found = std::find_if(kKindNames.begin(), kKindNames.end(), [kind](const char* each) {
    return kind != nullptr && std::string_view(each) == kind;
  });
  return found == kKindNames.end() ? -1 : registry().live[found - kKindNames.begin()].load();
}

void restartNumbers() {
  for (auto& number : registry().numbers) number.store(0);
}

bool isValid(const Handle* handle, Kind kind, const char* function) {
  if (handle == nullptr) return false;
  if (handle->kind != kind) {
    script().fault(std::string(function) + ": not a handle of the kind " +
                   kKindNames[static_cast<size_t>(kind)]);
    return false;
  }
  if (!handle->alive.load()) {
    script().fault(std::string(function) + ": " + kKindNames[static_cast<size_t>(kind)] + ' ' +
                   std::to_string(handle->number) + " was deleted before");
    return false;
  }
  return true;
}

bool retire(Handle* handle, Kind kind, const char* function) {
  if (!isValid(handle, kind, function)) return false;
  if (handle->self == nullptr) {
    script().fault(std::string(function) + ": the handle is borrowed");
    return false;
  }
  if (!handle->alive.exchange(false)) {
    script().fault(std::string(function) + ": two deletes at once");
    return false;
  }
  countLive(kind, -1);
  quarantine(std::move(handle->self));
  return true;
}

void quarantine(std::shared_ptr<Handle> handle) {
  handle->alive.store(false);
  std::shared_ptr<Handle> oldest;  // destroyed after the lock
  Registry& all = registry();
  const std::lock_guard lock(all.quarantine_mutex);
  all.retired.push_back(std::move(handle));
  if (all.retired.size() > kQuarantine) {
    oldest = std::move(all.retired.front());
    all.retired.pop_front();
  }
}

void rememberSession(const std::shared_ptr<srn_session>& session) {
  remember(registry().sessions, session);
}

void rememberPublisher(const std::shared_ptr<srn_publisher>& publisher) {
  remember(registry().publishers, publisher);
}

void rememberSubscriber(const std::shared_ptr<srn_subscriber>& subscriber) {
  remember(registry().subscribers, subscriber);
}

void forgetHandles() {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  all.sessions.clear();
  all.publishers.clear();
  all.subscribers.clear();
  all.chosen_session = 0;
}

void chooseSession(long number) {
  const std::lock_guard lock(registry().mutex);
  registry().chosen_session = number;
}

std::shared_ptr<srn_session> currentSession() {
  long chosen = 0;
  {
    const std::lock_guard lock(registry().mutex);
    chosen = registry().chosen_session;
  }
  return newest(registry().sessions, [chosen](const srn_session& session) {
    return chosen == 0 || session.number == chosen;
  });
}

std::shared_ptr<srn_publisher> currentPublisher() {
  return newest(registry().publishers, [](const srn_publisher&) { return true; });
}

std::shared_ptr<srn_subscriber> subscriberOf(const char* stream_id) {
  if (stream_id == nullptr) return nullptr;
  return newest(registry().subscribers, [stream_id](const srn_subscriber& subscriber) {
    const char* const id = subscriber.stream->id.get();
    return id != nullptr && std::string_view(id) == stream_id && subscriber.gate.open();
  });
}

}  // namespace scripted
