// The rest of the controls: log, failures, answers, explicit events, slots.
#include <array>
#include <string>
#include <string_view>

#include "answers.h"
#include "audio_device.h"
#include "audio_flow.h"
#include "frames.h"
#include "media.h"
#include "script.h"
#include "scripted_sarnet.h"
#include "strand.h"

using scripted::Answer;
using scripted::Event;
using scripted::script;
using scripted::strands;
using scripted::Text;

namespace {

// One text for each of the functions that give one.
template <int which>
const char* keep(std::string text) {
  thread_local std::string kept;
  kept = std::move(text);
  return kept.c_str();
}

std::optional<Event> eventNamed(const char* name) {
  constexpr std::array<std::string_view, static_cast<size_t>(Event::count)> names = {
      "connected",    "disconnected",   "stream_created", "subscriber_connected",
      "audio_device", "video_capturer", "media_gap"};
  for (size_t i = 0; i < names.size(); ++i) {
    if (name != nullptr && names[i] == name) return static_cast<Event>(i);
  }
  return std::nullopt;
}

std::optional<Answer> answerNamed(const char* name) {
  constexpr std::array<std::string_view, 5> names = {"none", "normal", "error", "twice",
                                                     "error_then_normal"};
  for (size_t i = 0; i < names.size(); ++i) {
    if (name != nullptr && names[i] == name) return static_cast<Answer>(i);
  }
  return std::nullopt;
}

// Posts an event for the current handle, if there is one.
template <class T, class Task>
int post(std::shared_ptr<T> handle, Task task) {
  if (handle == nullptr) return 0;
  strands().events.post([handle = std::move(handle), task] { task(*handle); });
  return 1;
}

using ConnectionSlot = void (*srn_session_callbacks::*)(srn_session*, void*, const srn_connection*);
using StreamSlot = void (*srn_session_callbacks::*)(srn_session*, void*, const srn_stream*);

template <class Slot, class Argument>
void deliver(srn_session& session, Slot slot, const std::shared_ptr<Argument>& argument) {
  const auto function = session.table.*slot;
  if (function == nullptr || !session.gate.enter([] {})) return;
  {
    const scripted::Inside inside(session.gate);
    function(&session, session.table.user_data, argument.get());
  }
  if (argument != nullptr) scripted::quarantine(argument);
}

int postConnection(ConnectionSlot slot, const char* id, const char* data, int64_t creation_time) {
  return post(scripted::currentSession(),
              [slot, id = Text(id), data = Text(data), creation_time](srn_session& session) {
                deliver(session, slot,
                        std::make_shared<srn_connection>(scripted::ConnectionFacts{
                            id, data, Text(session.id.c_str()), creation_time}));
              });
}

int postStream(StreamSlot slot, const char* id, const char* connection_id,
               const char* connection_data, int64_t creation_time) {
  return post(scripted::currentSession(), [slot, id = Text(id), connection_id = Text(connection_id),
                                           data = Text(connection_data),
                                           creation_time](srn_session& session) {
    auto connection = connection_id.get() == nullptr
                          ? nullptr
                          : std::make_shared<srn_connection>(scripted::ConnectionFacts{
                                connection_id, data, Text(session.id.c_str()), creation_time});
    deliver(session, slot, std::make_shared<srn_stream>(id, std::move(connection)));
  });
}

int postPublisherStream(scripted::PublisherSlot slot, const char* id) {
  return post(scripted::currentPublisher(), [slot, id = Text(id)](srn_publisher& publisher) {
    const auto stream = std::make_shared<srn_stream>(
        id, std::make_shared<srn_connection>(scripted::ownConnection()));
    scripted::deliverPublisherStream(publisher, slot, stream.get());
    scripted::quarantine(stream);
  });
}

int postPublisherNull(scripted::PublisherSlot slot) {
  return post(scripted::currentPublisher(), [slot](srn_publisher& publisher) {
    scripted::deliverPublisherStream(publisher, slot, nullptr);
  });
}

}  // namespace

void scripted_reset(void) {
  scripted::resetMedia();
  scripted::resetAudioFlow();
  strands().events.drop();
  strands().device.drop();
  scripted::finishDevice();  // a dropped wind-down would leave it running for good
  strands().audio.drop();
  strands().frames.drop();
  strands().captions.drop();
  scripted::forgetHandles();
  scripted::restartNumbers();
  scripted::resetAnswers();
  scripted::resetProvided();
  script().reset();
}

const char* scripted_calls(void) { return keep<0>(script().log()); }
void scripted_log_media(int on) { script().log_media.store(on != 0); }
void scripted_log(int on) { script().log_on.store(on != 0); }
const char* scripted_slots(void) { return keep<1>(script().slots()); }
long scripted_faults(void) { return script().faults(); }
const char* scripted_fault_texts(void) { return keep<2>(script().faultTexts()); }
long scripted_live(const char* kind) { return scripted::live(kind); }

long scripted_call_count(const char* function) {
  const auto named = scripted::functionNamed(function);
  return named ? script().calls(*named) : -1;
}

int scripted_wait_calls(const char* function, long count, int timeout_ms) {
  const auto named = scripted::functionNamed(function);
  return named && script().waitCalls(*named, count, timeout_ms) ? 1 : 0;
}

void scripted_fail(const char* function, int32_t status, int times) {
  const auto named = scripted::functionNamed(function);
  if (named) {
    script().fail(*named, status, times);
  } else {
    script().fault(std::string("scripted_fail: no function ") + (function ? function : "null"));
  }
}

void scripted_text(const char* function, const char* text) {
  if (const auto named = scripted::functionNamed(function)) script().setText(*named, text);
}

void scripted_own_connection(const char* id, const char* data, const char* session_id,
                             int64_t creation_time) {
  scripted::setOwnConnection({Text(id), Text(data), Text(session_id), creation_time});
}

int scripted_answer(const char* event, const char* how) {
  const auto named = eventNamed(event);
  const auto answer = answerNamed(how);
  if (!named || !answer) return 0;
  scripted::setAnswer(*named, *answer);
  return 1;
}

int scripted_auto(const char* event, int on) {
  return scripted_answer(event, on != 0 ? "normal" : "none");
}

int scripted_delay(const char* event, int milliseconds) {
  const auto named = eventNamed(event);
  if (!named) return 0;
  scripted::setDelay(*named, milliseconds);
  return 1;
}

int scripted_wait_idle(int timeout_ms) {
  return strands().backlog.waitEmpty(std::chrono::steady_clock::now() +
                                     std::chrono::milliseconds(timeout_ms))
             ? 1
             : 0;
}

void scripted_rogue(int on) { script().rogue.store(on != 0); }
void scripted_choose_session(long number) { scripted::chooseSession(number); }

int scripted_session_connected(void) {
  return post(scripted::currentSession(),
              [](srn_session& session) { scripted::deliverConnected(session); });
}

int scripted_session_disconnected(void) {
  return post(scripted::currentSession(),
              [](srn_session& session) { scripted::deliverDisconnected(session); });
}

int scripted_session_error(int32_t code, const char* text) {
  return post(scripted::currentSession(), [code, copy = Text(text)](srn_session& session) {
    scripted::deliverError(session, code, copy);
  });
}

int scripted_connection_created(const char* id, const char* data, int64_t creation_time) {
  return postConnection(&srn_session_callbacks::on_connection_created, id, data, creation_time);
}

int scripted_connection_dropped(const char* id, const char* data, int64_t creation_time) {
  return postConnection(&srn_session_callbacks::on_connection_dropped, id, data, creation_time);
}

int scripted_connection_created_null(void) {
  return post(scripted::currentSession(), [](srn_session& session) {
    deliver(session, &srn_session_callbacks::on_connection_created,
            std::shared_ptr<srn_connection>());
  });
}

int scripted_connection_dropped_null(void) {
  return post(scripted::currentSession(), [](srn_session& session) {
    deliver(session, &srn_session_callbacks::on_connection_dropped,
            std::shared_ptr<srn_connection>());
  });
}

int scripted_stream_received(const char* id, const char* connection_id, const char* connection_data,
                             int64_t creation_time) {
  return postStream(&srn_session_callbacks::on_stream_received, id, connection_id, connection_data,
                    creation_time);
}

int scripted_stream_dropped(const char* id, const char* connection_id, const char* connection_data,
                            int64_t creation_time) {
  return postStream(&srn_session_callbacks::on_stream_dropped, id, connection_id, connection_data,
                    creation_time);
}

int scripted_stream_received_null(void) {
  return post(scripted::currentSession(), [](srn_session& session) {
    deliver(session, &srn_session_callbacks::on_stream_received, std::shared_ptr<srn_stream>());
  });
}

int scripted_stream_dropped_null(void) {
  return post(scripted::currentSession(), [](srn_session& session) {
    deliver(session, &srn_session_callbacks::on_stream_dropped, std::shared_ptr<srn_stream>());
  });
}

int scripted_publisher_stream_created(const char* id) {
  return postPublisherStream(&srn_publisher_callbacks::on_stream_created, id);
}

int scripted_publisher_stream_destroyed(const char* id) {
  return postPublisherStream(&srn_publisher_callbacks::on_stream_destroyed, id);
}

int scripted_publisher_stream_created_null(void) {
  return postPublisherNull(&srn_publisher_callbacks::on_stream_created);
}

int scripted_publisher_stream_destroyed_null(void) {
  return postPublisherNull(&srn_publisher_callbacks::on_stream_destroyed);
}

int scripted_publisher_error(int32_t code, const char* text) {
  return post(scripted::currentPublisher(), [code, copy = Text(text)](srn_publisher& publisher) {
    scripted::deliverPublisherError(publisher, code, copy);
  });
}

int scripted_subscriber_connected(const char* stream_id) {
  return post(scripted::subscriberOf(stream_id),
              [](srn_subscriber& subscriber) { scripted::deliverSubscriberConnected(subscriber); });
}

int scripted_subscriber_disconnected(const char* stream_id) {
  return post(scripted::subscriberOf(stream_id), [](srn_subscriber& subscriber) {
    scripted::deliverSubscriberDisconnected(subscriber);
  });
}

int scripted_subscriber_error(const char* stream_id, int32_t code, const char* text) {
  return post(scripted::subscriberOf(stream_id),
              [code, copy = Text(text)](srn_subscriber& subscriber) {
                scripted::deliverSubscriberError(subscriber, code, copy);
              });
}

int scripted_device_slot(const char* slot) {
  return scripted::callDeviceSlot(slot, std::nullopt, nullptr);
}

int scripted_device_slot_with(const char* slot, void* user_data) {
  return scripted::callDeviceSlot(slot, user_data, nullptr);
}

int scripted_device_settings(const char* slot, int32_t* rate, int32_t* channels) {
  srn_audio_device_settings settings{};
  const int result = scripted::callDeviceSlot(slot, std::nullopt, &settings);
  if (rate != nullptr) *rate = settings.sampling_rate;
  if (channels != nullptr) *channels = settings.number_of_channels;
  return result;
}

void* scripted_device_user_data(void) {
  const auto table = scripted::installedDevice();
  return table ? table->user_data : nullptr;
}

int scripted_capturer_slot(const char* slot) {
  const auto publisher = scripted::currentPublisher();
  return publisher ? scripted::callCapturerSlot(*publisher, slot, std::nullopt, nullptr) : -1;
}

int scripted_capturer_slot_with(const char* slot, void* user_data) {
  const auto publisher = scripted::currentPublisher();
  return publisher ? scripted::callCapturerSlot(*publisher, slot, user_data, nullptr) : -1;
}

int scripted_capturer_settings(struct srn_video_capturer_settings* out) {
  const auto publisher = scripted::currentPublisher();
  return publisher
             ? scripted::callCapturerSlot(*publisher, "get_capture_settings", std::nullopt, out)
             : -1;
}
