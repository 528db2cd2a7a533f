#pragma once

#include <sarnet/sarnet.h>

#include <atomic>

#include "audio/audio_device.h"
#include "base/handles.h"
#include "base/statistics.h"
#include "pictures/video_frame.h"
#include "pictures/video_track.h"
#include "session/context.h"
#include "session/publisher.h"
#include "session/session.h"
#include "session/stream.h"
#include "session/subscriber.h"

namespace sarnet {

// The process-wide state: the live handles, the audio device and the counters. Any thread.
class Library {
 public:
  // Made by the first call and never destroyed: handles may be deleted while the process exits.
  static Library& instance();

  void init();
  bool initialised() const;
  // Ends all sessions and joins all threads; waits at most 10 seconds for callbacks of the program.
  // False, with nothing done, on a thread of the library.
  bool destroy();

  Counters counters;
  AudioDevice audio_device{counters};

  HandleTable<SessionSettings, srn_session_settings> session_settings{HandleKind::kSessionSettings,
                                                                      "srn_session_settings"};
  HandleTable<Session, srn_session> sessions{HandleKind::kSession, "srn_session"};
  HandleTable<PublisherSettings, srn_publisher_settings> publisher_settings{
      HandleKind::kPublisherSettings, "srn_publisher_settings"};
  HandleTable<Publisher, srn_publisher> publishers{HandleKind::kPublisher, "srn_publisher"};
  HandleTable<Subscriber, srn_subscriber> subscribers{HandleKind::kSubscriber, "srn_subscriber"};
  HandleTable<Stream, srn_stream> streams{HandleKind::kStream, "srn_stream"};
  HandleTable<Connection, srn_connection> connections{HandleKind::kConnection, "srn_connection"};
  HandleTable<VideoFrame, srn_video_frame> frames{HandleKind::kVideoFrame, "srn_video_frame"};
  HandleTable<VideoTrack, srn_video_capturer> capturers{HandleKind::kVideoCapturer,
                                                        "srn_video_capturer"};

  const Context context{counters, audio_device, streams, connections, frames, capturers};

 private:
  Library() = default;

  std::atomic<bool> initialised_{false};
};

}  // namespace sarnet
