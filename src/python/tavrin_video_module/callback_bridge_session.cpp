#include "model_serializers/create_objects.h"
#include "tavrin_video_module/callback_bridge.h"
#include "tavrin_video_module/event_delivery.h"

using namespace models;

namespace {

constexpr const char* kNoSessionOrConnection =
    "Failed to create Session or Connection objects for callback";
constexpr const char* kNoSessionOrStream =
    "Failed to create Session or Stream objects for callback";

// Of one side of the buffers, for the log.
std::string duration_text(const std::optional<BufferStats>& stats) {
  return stats ? std::to_string(stats->duration_millis) : "null";
}

}  // namespace

void on_session_connected_impl(const std::string& session_id) {
  LOG4CXX_DEBUG(logger, "Session connected callback");
  deliver(SlotTarget(g_on_connected_cb), "on_connected", [&](EventArguments& arguments) {
    return arguments.add(create_session_object(session_id),
                         "Failed to create Session object for connected callback");
  });
}

void on_session_disconnected_impl(const std::string& session_id) {
  LOG4CXX_DEBUG(logger, "Session disconnected callback");
  deliver(SlotTarget(g_on_disconnected_cb), "on_disconnected", [&](EventArguments& arguments) {
    return arguments.add(create_session_object(session_id),
                         "Failed to create Session object for disconnected callback");
  });
}

void on_session_ready_to_publish_impl(const std::string& session_id) {
  LOG4CXX_DEBUG(logger, "Ready for audio callback");
  deliver(SlotTarget(g_on_ready_for_audio_cb), "on_ready_for_audio",
          [&](EventArguments& arguments) {
            return arguments.add(create_session_object(session_id),
                                 "Failed to create Session object for ready for audio callback");
          });
}

void on_session_error_impl(const std::string& session_id, const std::string& error_message,
                           int error_code) {
  LOG4CXX_DEBUG(logger, "Session error callback: " << error_message << " (" << error_code << ")");
  deliver(SlotTarget(g_on_error_cb), "on_error", [&](EventArguments& arguments) {
    const char* failure = "Failed to create Session object for error callback";
    return arguments.add(create_session_object(session_id), failure) &&
           arguments.addError(error_message, error_code, failure);
  });
}

void on_session_connection_created_impl(const std::string& session_id,
                                        const MRConnectionInfo& connection) {
  deliver(SlotTarget(g_on_connection_created_cb), "on_connection_created",
          [&](EventArguments& arguments) {
            return arguments.add(create_session_object(session_id), kNoSessionOrConnection) &&
                   arguments.add(create_connection_object(connection), kNoSessionOrConnection);
          });
}

void on_session_connection_dropped_impl(const std::string& session_id,
                                        const MRConnectionInfo& connection) {
  deliver(SlotTarget(g_on_connection_dropped_cb), "on_connection_dropped",
          [&](EventArguments& arguments) {
            return arguments.add(create_session_object(session_id), kNoSessionOrConnection) &&
                   arguments.add(create_connection_object(connection), kNoSessionOrConnection);
          });
}

void on_stream_received_impl(const std::string& session_id, const MRStream& stream) {
  LOG4CXX_DEBUG(logger, "Stream received callback");
  deliver(SlotTarget(g_on_stream_received_cb), "on_stream_received",
          [&](EventArguments& arguments) {
            return arguments.add(create_session_object(session_id), kNoSessionOrStream) &&
                   arguments.add(create_stream_object(stream.getStreamInfo()), kNoSessionOrStream);
          });
}

void on_stream_dropped_impl(const std::string& session_id, const MRStreamInfo& stream) {
  LOG4CXX_DEBUG(logger, "Stream dropped callback");
  deliver(SlotTarget(g_on_stream_dropped_cb), "on_stream_dropped", [&](EventArguments& arguments) {
    return arguments.add(create_session_object(session_id), kNoSessionOrStream) &&
           arguments.add(create_stream_object(stream), kNoSessionOrStream);
  });
}

void on_session_audio_data_impl(const std::string& session_id, const MRAudioData& audio) {
  deliver(SlotTarget(g_on_audio_data_cb), "on_audio_data", [&](EventArguments& arguments) {
    const char* failure = "Failed to create Session or AudioData objects for callback";
    return arguments.add(create_session_object(session_id), failure) &&
           arguments.add(create_audio_data_object(audio, arguments.mediaMemory()), failure);
  });
}

void on_session_media_buffer_drained_impl(const MediaBufferStats& stats) {
  LOG4CXX_DEBUG(logger, "Media buffers have been drained audio: "
                            << duration_text(stats.audio_stats)
                            << " ms video: " << duration_text(stats.video_stats) << " ms");
  deliver(SlotTarget(g_on_media_buffer_drained_cb), "on_media_buffer_drained",
          [&](EventArguments& arguments) {
            return arguments.add(
                create_media_buffer_stats_object(stats.audio_stats, stats.video_stats),
                "Failed to create MediaBufferStats object to notify the drain of the media "
                "buffers");
          });
}
