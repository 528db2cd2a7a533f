// The automatic answers of the scripted library, and the events it delivers.
#pragma once

#include <sarnet/sarnet.h>

#include <chrono>
#include <memory>
#include <string>

#include "handles.h"

namespace scripted {

enum class Answer { none, normal, error, twice, error_then_normal };
enum class Event {
  connected,
  disconnected,
  stream_created,
  subscriber_connected,
  audio_device,
  video_capturer,
  media_gap,
  count
};

void resetAnswers();
Answer answerTo(Event event);
std::chrono::milliseconds delayOf(Event event);
bool isEnabled(Event event);
void setAnswer(Event event, Answer how);
void setDelay(Event event, int milliseconds);

// What the functions of the contract ask for once they have succeeded.
void answerConnect(const std::shared_ptr<srn_session>& session);
void answerDisconnect(const std::shared_ptr<srn_session>& session);
void answerPublish(const std::shared_ptr<srn_publisher>& publisher);
void answerSubscribe(const std::shared_ptr<srn_subscriber>& subscriber);

ConnectionFacts ownConnection();
void setOwnConnection(ConnectionFacts facts);

// Delivered on the calling thread; false when the handle takes no callbacks or the slot is null.
bool deliverConnected(srn_session& session);
bool deliverDisconnected(srn_session& session);
bool deliverError(srn_session& session, int32_t code, const Text& text);
using PublisherSlot = void (*srn_publisher_callbacks::*)(srn_publisher*, void*, const srn_stream*);
bool deliverPublisherStream(srn_publisher& publisher, PublisherSlot slot, srn_stream* stream);
bool deliverPublisherError(srn_publisher& publisher, int32_t code, const Text& text);
bool deliverSubscriberConnected(srn_subscriber& subscriber);
bool deliverSubscriberDisconnected(srn_subscriber& subscriber);
bool deliverSubscriberError(srn_subscriber& subscriber, int32_t code, const Text& text);

}  // namespace scripted
