#pragma once

#include <Python.h>

#include <optional>
#include <string>

#include "media/buffer_stats.h"
#include "media/mr_audio_data.h"
#include "media/mr_video_frame.h"
#include "python_utils.h"
#include "session/mr_connection.h"
#include "session/mr_stream.h"
#include "session/mr_subscriber.h"

// Native records as objects of the Python model classes. Every function takes the interpreter lock
// itself, but the caller must hold it too, to own the result. Null when it failed: logged, with a
// Python exception pending.
//
// Objects are always new: a program may change or keep those it gets.
namespace models {

using python_utils::PyObjectPtr;

PyObjectPtr create_session_object(const std::string& session_id);

// The creation time becomes a naive `datetime` in local time.
PyObjectPtr create_connection_object(const MRConnectionInfo& info);
PyObjectPtr create_stream_object(const MRStreamInfo& info);
PyObjectPtr create_subscriber_object(const MRStreamInfo& stream_info);
// With a stream of which only the id is set.
PyObjectPtr create_subscriber_object(const MRSubscriberInfo& subscriber_info);
PyObjectPtr create_publisher_object(const MRStreamInfo& stream_info);

PyObjectPtr create_captions_data_object(const std::string& text, bool is_final);
PyObjectPtr create_resolution_object(int width, int height);

// The view in the object shows what `memory` receives: a copy of the samples, and for a frame its
// own pixels, which the memory keeps alive.
PyObjectPtr create_audio_data_object(const MRAudioData& audio, PyObjectPtr& memory);
PyObjectPtr create_video_frame_object(const MRVideoFrameData& frame, PyObjectPtr& memory);

PyObjectPtr create_audio_buffer_stats_object(const AudioBufferStats& stats);
PyObjectPtr create_video_buffer_stats_object(const VideoBufferStats& stats);
// An absent side keeps the default of the class.
PyObjectPtr create_media_buffer_stats_object(const std::optional<AudioBufferStats>& audio,
                                             const std::optional<VideoBufferStats>& video);

}  // namespace models
