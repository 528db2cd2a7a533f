// The events that the scripted library sends to sessions, publishers and subscribers, by itself and
// on request.
#pragma once

#include <sarnet/sarnet.h>

#include <chrono>
#include <memory>

#include "handles.h"

namespace scripted {

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
std::chrono::milliseconds delayOf(Event event);
bool isAnswered(Event event);

// Called by the functions of the contract once they have succeeded.
void answerConnect(const std::shared_ptr<srn_session>& session);
void answerDisconnect(const std::shared_ptr<srn_session>& session);
void answerPublish(const std::shared_ptr<srn_publisher>& publisher);
void answerSubscribe(const std::shared_ptr<srn_subscriber>& subscriber);

std::shared_ptr<srn_connection> makeConnection(const char* id, const char* data,
                                               const char* session_id, int64_t creation_time);
// The own connection; its session is `session_id` unless the script says otherwise.
std::shared_ptr<srn_connection> ownConnection(const char* session_id);

}  // namespace scripted
