#include "events.h"

#include <array>
#include <string_view>

#include "audio.h"
#include "script.h"
#include "scripted_sarnet.h"
#include "strand.h"

namespace scripted {
namespace {

constexpr std::array<std::string_view, static_cast<size_t>(Event::count)> kEvents = {
    "connected",    "disconnected",   "stream_created", "subscriber_connected",
    "audio_device", "video_capturer", "media_gap"};

struct Answer {
  std::string_view how;
  int errors;
  int normals;
};
constexpr Answer kAnswers[] = {
    {"normal", 0, 1}, {"none", 0, 0}, {"error", 1, 0}, {"twice", 0, 2}, {"error_then_normal", 1, 1},
};

constexpr int32_t kErrorCode = 2000;
constexpr const char* kErrorText = "scripted error";
constexpr int kDeviceDelayMs = 100;

struct Setting {
  std::atomic<const Answer*> answer{kAnswers};
  std::atomic<int> delay_ms{0};
};

struct Settings {
  std::array<Setting, kEvents.size()> of;
  std::mutex own_mutex;
  std::shared_ptr<srn_connection> own;

  Settings() { reset(); }
  void reset() {
    for (Setting& each : of) {
      each.answer.store(kAnswers);
      each.delay_ms.store(0);
    }
    of[static_cast<size_t>(Event::audio_device)].delay_ms.store(kDeviceDelayMs);
    const std::lock_guard lock(own_mutex);
    own = makeConnection("own-connection", "own-data", nullptr, 1'700'000'000'000);
  }
};

Settings& settings() {
  static auto* const instance = new Settings;
  return *instance;
}

Setting& settingOf(Event event) { return settings().of[static_cast<size_t>(event)]; }

Setting* settingNamed(const char* event) {
  const auto found = std::find(kEvents.begin(), kEvents.end(), event == nullptr ? "" : event);
  return found == kEvents.end() ? nullptr : &settings().of[found - kEvents.begin()];
}

// Runs `task` on the event thread with the handle; 0 when there is none.
template <class T, class Task>
int post(const std::shared_ptr<T>& handle, Task task, std::chrono::milliseconds delay = {}) {
  if (handle == nullptr) return 0;
  strands().events.post([handle, task] { task(*handle); }, delay);
  return 1;
}

template <class T, class Normal, class Error>
void answer(Event event, const std::shared_ptr<T>& handle, Normal normal, Error error) {
  const Answer& how = *settingOf(event).answer.load();
  for (int i = 0; i < how.errors; ++i) post(handle, error, delayOf(event));
  for (int i = 0; i < how.normals; ++i) post(handle, normal, delayOf(event));
}

// False when the handle takes no callbacks or the slot is null.
template <class T, class Slot, class... Arguments>
bool deliver(T& handle, Slot slot, Arguments... arguments) {
  bool called = false;
  std::remove_cvref_t<decltype(handle.table)> table{};
  handle.gate.pass([&] { table = handle.table; },
                   [&] {
                     if (table.*slot == nullptr) return;
                     called = true;
                     (table.*slot)(&handle, table.user_data, arguments...);
                   });
  return called;
}

// Any number, also outside the enumeration: converted only in the call.
struct Code {
  int32_t value;
  template <class Enumeration>
  operator Enumeration() const {
    return static_cast<Enumeration>(value);
  }
};

void connected(srn_session& session) {
  session.joined.store(session.gate.open());
  if (deliver(session, &srn_session_callbacks::on_connected) && isAnswered(Event::audio_device)) {
    scheduleDeviceStart(session, delayOf(Event::audio_device));
  }
}

void ended(srn_session& session) {
  session.open.store(false);
  session.joined.store(false);
  scheduleDeviceStop(&session);
}

void disconnected(srn_session& session) {
  ended(session);
  deliver(session, &srn_session_callbacks::on_disconnected);
}

auto sessionError(int32_t code, const char* given_text) {
  return [code, copy = text(given_text)](srn_session& session) {
    ended(session);
    deliver(session, &srn_session_callbacks::on_error, given(copy), Code{code});
  };
}

auto publisherError(int32_t code, const char* given_text) {
  return [code, copy = text(given_text)](srn_publisher& publisher) {
    deliver(publisher, &srn_publisher_callbacks::on_error, given(copy), Code{code});
  };
}

auto subscriberError(int32_t code, const char* given_text) {
  return [code, copy = text(given_text)](srn_subscriber& subscriber) {
    deliver(subscriber, &srn_subscriber_callbacks::on_error, given(copy), Code{code});
  };
}

void subscriberConnected(srn_subscriber& subscriber) {
  const srn_stream* const stream = &subscriber.stream;
  deliver(subscriber, &srn_subscriber_callbacks::on_connected, stream);
}

void subscriberDisconnected(srn_subscriber& subscriber) {
  deliver(subscriber, &srn_subscriber_callbacks::on_disconnected);
}

// Reports an object that lives only for the callback, or none.
template <class Slot, class T>
auto telling(Slot slot, const std::shared_ptr<T>& object) {
  return [slot, object](auto& handle) {
    const T* const borrowed = object.get();
    deliver(handle, slot, borrowed);
    quarantine(object);
  };
}

std::shared_ptr<srn_connection> connectionOfSession(const char* id, const char* data,
                                                    int64_t creation_time) {
  const auto session = currentSession();
  return makeConnection(id, data, session ? session->id.c_str() : nullptr, creation_time);
}

std::shared_ptr<srn_stream> streamOfSession(const char* id, const char* connection_id,
                                            const char* data, int64_t creation_time) {
  return std::make_shared<srn_stream>(
      text(id),
      connection_id == nullptr ? nullptr : connectionOfSession(connection_id, data, creation_time));
}

std::shared_ptr<srn_stream> ownStream(const char* id) {
  return std::make_shared<srn_stream>(text(id), ownConnection(nullptr));
}

}  // namespace

void resetAnswers() { settings().reset(); }

std::chrono::milliseconds delayOf(Event event) {
  return std::chrono::milliseconds{settingOf(event).delay_ms.load()};
}

bool isAnswered(Event event) { return settingOf(event).answer.load()->normals != 0; }

std::shared_ptr<srn_connection> makeConnection(const char* id, const char* data,
                                               const char* session_id, int64_t creation_time) {
  const auto connection = std::make_shared<srn_connection>();
  connection->id = text(id);
  connection->data = text(data);
  connection->session_id = text(session_id);
  connection->creation_time = creation_time;
  return connection;
}

std::shared_ptr<srn_connection> ownConnection(const char* session_id) {
  const std::lock_guard lock(settings().own_mutex);
  const srn_connection& own = *settings().own;
  return makeConnection(given(own.id), given(own.data),
                        own.session_id ? given(own.session_id) : session_id, own.creation_time);
}

void answerConnect(const std::shared_ptr<srn_session>& session) {
  answer(Event::connected, session, connected, sessionError(kErrorCode, kErrorText));
}

void answerDisconnect(const std::shared_ptr<srn_session>& session) {
  answer(Event::disconnected, session, disconnected, sessionError(kErrorCode, kErrorText));
}

void answerPublish(const std::shared_ptr<srn_publisher>& publisher) {
  if (publisher->capturer_table && isAnswered(Event::video_capturer)) {
    post(publisher, startCapturer, delayOf(Event::video_capturer));
  }
  const std::string id = "published-" + std::to_string(publisher->number);
  answer(
      Event::stream_created, publisher,
      [id](srn_publisher& each) {
        telling(&srn_publisher_callbacks::on_stream_created, ownStream(id.c_str()))(each);
      },
      publisherError(kErrorCode, kErrorText));
}

void answerSubscribe(const std::shared_ptr<srn_subscriber>& subscriber) {
  answer(Event::subscriber_connected, subscriber, subscriberConnected,
         subscriberError(kErrorCode, kErrorText));
}

}  // namespace scripted

using namespace scripted;

void scripted_own_connection(const char* id, const char* data, const char* session_id,
                             int64_t creation_time) {
  const std::lock_guard lock(settings().own_mutex);
  settings().own = makeConnection(id, data, session_id, creation_time);
}

int scripted_answer(const char* event, const char* how) {
  auto* const setting = settingNamed(event);
  for (const auto& answer : kAnswers) {
    if (setting == nullptr || how == nullptr || answer.how != how) continue;
    setting->answer.store(&answer);
    return 1;
  }
  return 0;
}

int scripted_delay(const char* event, int milliseconds) {
  auto* const setting = settingNamed(event);
  if (setting != nullptr) setting->delay_ms.store(milliseconds);
  return setting != nullptr ? 1 : 0;
}

void scripted_choose_session(long number) { chooseSession(number); }

int scripted_session_connected(void) { return post(currentSession(), connected); }
int scripted_session_disconnected(void) { return post(currentSession(), disconnected); }

int scripted_session_error(int32_t code, const char* text) {
  return post(currentSession(), sessionError(code, text));
}

// An event with an object, and the same without.
#define OBJECT_EVENT(event, handle, slot, Object, object, ...)                      \
  int scripted_##event(__VA_ARGS__) { return post(handle, telling(slot, object)); } \
  int scripted_##event##_null(void) {                                               \
    return post(handle, telling(slot, std::shared_ptr<Object>()));                  \
  }
#define CONNECTION_EVENT(event)                                                             \
  OBJECT_EVENT(event, currentSession(), &srn_session_callbacks::on_##event, srn_connection, \
               connectionOfSession(id, data, time), const char* id, const char* data,       \
               int64_t time)
CONNECTION_EVENT(connection_created)
CONNECTION_EVENT(connection_dropped)

#define STREAM_EVENT(event)                                                             \
  OBJECT_EVENT(event, currentSession(), &srn_session_callbacks::on_##event, srn_stream, \
               streamOfSession(id, connection_id, data, time), const char* id,          \
               const char* connection_id, const char* data, int64_t time)
STREAM_EVENT(stream_received)
STREAM_EVENT(stream_dropped)

#define PUBLISHER_EVENT(event)                                                              \
  OBJECT_EVENT(publisher_##event, currentPublisher(), &srn_publisher_callbacks::on_##event, \
               srn_stream, ownStream(id), const char* id)
PUBLISHER_EVENT(stream_created)
PUBLISHER_EVENT(stream_destroyed)

int scripted_publisher_error(int32_t code, const char* text) {
  return post(currentPublisher(), publisherError(code, text));
}

int scripted_subscriber_connected(const char* stream_id) {
  return post(subscriberOf(stream_id), subscriberConnected);
}

int scripted_subscriber_disconnected(const char* stream_id) {
  return post(subscriberOf(stream_id), subscriberDisconnected);
}

int scripted_subscriber_error(const char* stream_id, int32_t code, const char* text) {
  return post(subscriberOf(stream_id), subscriberError(code, text));
}
