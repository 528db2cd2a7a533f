#include "answers.h"

#include <array>
#include <atomic>
#include <mutex>

#include "audio_device.h"
#include "script.h"
#include "strand.h"

namespace scripted {
namespace {

constexpr int32_t kScriptedError = 2000;
constexpr const char* kScriptedErrorText = "scripted error";
constexpr int kDeviceDelayMs = 20;

struct Answers {
  std::array<std::atomic<Answer>, static_cast<size_t>(Event::count)> how{};
  std::array<std::atomic<int>, static_cast<size_t>(Event::count)> delay_ms{};
  std::mutex own_mutex;
  ConnectionFacts own;

  Answers() { reset(); }
  void reset() {
    for (auto& each : how) each.store(Answer::normal);
    for (auto& each : delay_ms) each.store(0);
    delay_ms[static_cast<size_t>(Event::audio_device)].store(kDeviceDelayMs);
    const std::lock_guard lock(own_mutex);
    own = {Text("own-connection"), Text("own-data"), Text(), 1'700'000'000'000};
  }
};

Answers& answers() {
  static Answers* const instance = new Answers;
  return *instance;
}

const Text kErrorText{kScriptedErrorText};

// Runs `task` on the event thread, after the delay of the event; it keeps the handle.
template <class T, class Task>
void answer(Event event, const std::shared_ptr<T>& handle, Task task) {
  strands().events.post(delayOf(event), [handle, task] { task(*handle); });
}

template <class T, class Normal, class Error>
void answerInKind(Event event, const std::shared_ptr<T>& handle, Normal normal, Error error) {
  const Answer how = answerTo(event);
  if (how == Answer::error || how == Answer::error_then_normal) answer(event, handle, error);
  if (how != Answer::error && how != Answer::none) answer(event, handle, normal);
  if (how == Answer::twice) answer(event, handle, normal);
}

}  // namespace

void resetAnswers() { answers().reset(); }

Answer answerTo(Event event) { return answers().how[static_cast<size_t>(event)].load(); }

std::chrono::milliseconds delayOf(Event event) {
  return std::chrono::milliseconds{answers().delay_ms[static_cast<size_t>(event)].load()};
}

bool isEnabled(Event event) { return answerTo(event) != Answer::none; }

void setAnswer(Event event, Answer how) { answers().how[static_cast<size_t>(event)].store(how); }

void setDelay(Event event, int milliseconds) {
  answers().delay_ms[static_cast<size_t>(event)].store(milliseconds);
}

ConnectionFacts ownConnection() {
  const std::lock_guard lock(answers().own_mutex);
  return answers().own;
}

void setOwnConnection(ConnectionFacts facts) {
  const std::lock_guard lock(answers().own_mutex);
  answers().own = std::move(facts);
}

bool deliverConnected(srn_session& session) {
  if (session.table.on_connected == nullptr || !session.gate.enter([] {})) return false;
  session.joined.store(true);
  {
    const Inside inside(session.gate);
    session.table.on_connected(&session, session.table.user_data);
  }
  return true;
}

bool deliverDisconnected(srn_session& session) {
  session.open.store(false);
  session.joined.store(false);
  scheduleDeviceStop(&session);
  if (session.table.on_disconnected == nullptr || !session.gate.enter([] {})) return false;
  const Inside inside(session.gate);
  session.table.on_disconnected(&session, session.table.user_data);
  return true;
}

bool deliverError(srn_session& session, int32_t code, const Text& text) {
  session.open.store(false);
  session.joined.store(false);
  scheduleDeviceStop(&session);
  if (session.table.on_error == nullptr || !session.gate.enter([] {})) return false;
  const Inside inside(session.gate);
  session.table.on_error(&session, session.table.user_data, text.get(),
                         static_cast<srn_session_error_code>(code));
  return true;
}

bool deliverPublisherStream(srn_publisher& publisher, PublisherSlot slot, srn_stream* stream) {
  // The table is the program's, and may be gone once the publisher was deleted.
  srn_publisher_callbacks table{};
  if (!publisher.gate.enter([&] { table = *publisher.table; })) return false;
  const Inside inside(publisher.gate);
  if (table.*slot == nullptr) return false;
  (table.*slot)(&publisher, table.user_data, stream);
  return true;
}

bool deliverPublisherError(srn_publisher& publisher, int32_t code, const Text& text) {
  srn_publisher_callbacks table{};
  if (!publisher.gate.enter([&] { table = *publisher.table; })) return false;
  const Inside inside(publisher.gate);
  if (table.on_error == nullptr) return false;
  table.on_error(&publisher, table.user_data, text.get(),
                 static_cast<srn_publisher_error_code>(code));
  return true;
}

bool deliverSubscriberConnected(srn_subscriber& subscriber) {
  if (subscriber.table.on_connected == nullptr || !subscriber.gate.enter([] {})) return false;
  const Inside inside(subscriber.gate);
  subscriber.table.on_connected(&subscriber, subscriber.table.user_data, subscriber.stream.get());
  return true;
}

bool deliverSubscriberDisconnected(srn_subscriber& subscriber) {
  if (subscriber.table.on_disconnected == nullptr || !subscriber.gate.enter([] {})) return false;
  const Inside inside(subscriber.gate);
  subscriber.table.on_disconnected(&subscriber, subscriber.table.user_data);
  return true;
}

bool deliverSubscriberError(srn_subscriber& subscriber, int32_t code, const Text& text) {
  if (subscriber.table.on_error == nullptr || !subscriber.gate.enter([] {})) return false;
  const Inside inside(subscriber.gate);
  subscriber.table.on_error(&subscriber, subscriber.table.user_data, text.get(),
                            static_cast<srn_subscriber_error_code>(code));
  return true;
}

void answerConnect(const std::shared_ptr<srn_session>& session) {
  answerInKind(
      Event::connected, session,
      [](srn_session& each) {
        if (deliverConnected(each) && isEnabled(Event::audio_device)) scheduleDeviceStart(each);
      },
      [](srn_session& each) { deliverError(each, kScriptedError, kErrorText); });
}

void answerDisconnect(const std::shared_ptr<srn_session>& session) {
  answerInKind(
      Event::disconnected, session, [](srn_session& each) { deliverDisconnected(each); },
      [](srn_session& each) { deliverError(each, kScriptedError, kErrorText); });
}

void answerPublish(const std::shared_ptr<srn_publisher>& publisher) {
  if (publisher->video_track && publisher->has_capturer && isEnabled(Event::video_capturer)) {
    answer(Event::video_capturer, publisher, [](srn_publisher& each) { startCapturer(each); });
  }
  answerInKind(
      Event::stream_created, publisher,
      [](srn_publisher& each) {
        const std::string id = "published-" + std::to_string(each.number);
        const auto stream = std::make_shared<srn_stream>(
            Text(id.c_str()), std::make_shared<srn_connection>(ownConnection()));
        deliverPublisherStream(each, &srn_publisher_callbacks::on_stream_created, stream.get());
        quarantine(stream);
      },
      [](srn_publisher& each) { deliverPublisherError(each, kScriptedError, kErrorText); });
}

void answerSubscribe(const std::shared_ptr<srn_subscriber>& subscriber) {
  answerInKind(
      Event::subscriber_connected, subscriber,
      [](srn_subscriber& each) { deliverSubscriberConnected(each); },
      [](srn_subscriber& each) { deliverSubscriberError(each, kScriptedError, kErrorText); });
}

}  // namespace scripted
