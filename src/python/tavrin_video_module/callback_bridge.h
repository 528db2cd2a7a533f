#pragma once

#include <string>

#include "controller/mr_controller.h"

// Delivers native events to Python, one function for each event: it builds the event's objects and
// calls the program's callable for it, if any. All data are copied, or owned by the objects passed;
// what the callable returns or raises goes no further.
//
// Called with no interpreter lock: subscriber media on threads of the library, mixed audio on the
// renderer's, everything else on the controller's worker. An event without a listener takes no lock
// at all. A callable may call any method of the client.

void on_session_connected_impl(const std::string& session_id);
void on_session_disconnected_impl(const std::string& session_id);
void on_session_ready_to_publish_impl(const std::string& session_id);
void on_session_error_impl(const std::string& session_id, const std::string& error_message,
                           int error_code);
void on_session_connection_created_impl(const std::string& session_id,
                                        const MRConnectionInfo& connection);
void on_session_connection_dropped_impl(const std::string& session_id,
                                        const MRConnectionInfo& connection);
void on_stream_received_impl(const std::string& session_id, const MRStream& stream);
void on_stream_dropped_impl(const std::string& session_id, const MRStreamInfo& stream);
void on_session_audio_data_impl(const std::string& session_id, const MRAudioData& audio);
void on_session_media_buffer_drained_impl(const MediaBufferStats& stats);

void on_subscriber_connected_impl(const MRSubscriber& subscriber);
void on_subscriber_disconnected_impl(const MRSubscriber& subscriber);
void on_subscriber_error_impl(const MRSubscriber& subscriber, const std::string& error_message,
                              int error_code);
void on_subscriber_audio_data_impl(const MRStreamInfo& stream, const MRAudioData& audio);
void on_subscriber_render_frame_impl(const MRStreamInfo& stream, const MRVideoFrameData& frame);
void on_subscriber_caption_text_impl(const MRStreamInfo& stream, const std::string& text,
                                     bool is_final);

void on_publisher_stream_created_impl(const MRPublisher& publisher);
void on_publisher_stream_destroyed_impl(const MRPublisher& publisher);
void on_publisher_error_impl(const MRPublisher& publisher, const std::string& error_message,
                             int error_code);
