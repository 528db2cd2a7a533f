#pragma once

#include "audio/audio_device.h"
#include "base/handles.h"
#include "base/statistics.h"
#include "pictures/video_frame.h"
#include "pictures/video_track.h"

namespace sarnet {

struct Connection;
class Stream;

// What sessions, publishers and subscribers use of the library that made them. Borrowed, and
// valid for as long as any of them lives. Any thread.
struct Context {
  Counters& counters;
  AudioDevice& audio_device;
  // Handles that are lent to the program for the length of a callback.
  HandleTable<Stream, srn_stream>& streams;
  HandleTable<Connection, srn_connection>& connections;
  HandleTable<VideoFrame, srn_video_frame>& frames;
  // And from a capturer's init to its destroy.
  HandleTable<VideoTrack, srn_video_capturer>& capturers;
};

}  // namespace sarnet
