#pragma once

#include <log4cxx/logger.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

#include "controller/mr_controller.h"
#include "tavrin_video_module/callables.h"
#include "tavrin_video_module/exit_gate.h"

// The module's state, one per process: client objects are empty handles on it. Guarded by the
// interpreter lock, unless a type says otherwise. Objects with Python references are never
// destroyed: at process exit their interpreter is gone.

extern const log4cxx::LoggerPtr& logger;

extern ExitGate& g_exit_gate;

// The one controller: made with the first client object, ended by `tavrin_video_cleanup`, or at
// process exit if that hook has not run.
extern std::unique_ptr<MRController> g_controller;
// The process that made it. A forked child has the object but none of its threads, and does not
// destroy it.
extern pid_t g_controller_process;

extern CallableSlot g_on_error_cb;
extern CallableSlot g_on_connected_cb;
extern CallableSlot g_on_disconnected_cb;
extern CallableSlot g_on_connection_created_cb;
extern CallableSlot g_on_connection_dropped_cb;
extern CallableSlot g_on_stream_received_cb;
extern CallableSlot g_on_stream_dropped_cb;
extern CallableSlot g_on_audio_data_cb;
extern CallableSlot g_on_ready_for_audio_cb;
extern CallableSlot g_on_media_buffer_drained_cb;
extern SubscriberCallables& g_subscriber_callbacks;
extern PublisherCallbacks g_publisher_callbacks;

// In the order in which they are given and dropped.
inline constexpr std::array<CallableSlot*, 10> kSessionSlots{&g_on_error_cb,
                                                             &g_on_connected_cb,
                                                             &g_on_disconnected_cb,
                                                             &g_on_connection_created_cb,
                                                             &g_on_connection_dropped_cb,
                                                             &g_on_stream_received_cb,
                                                             &g_on_stream_dropped_cb,
                                                             &g_on_audio_data_cb,
                                                             &g_on_ready_for_audio_cb,
                                                             &g_on_media_buffer_drained_cb};
inline constexpr std::array<CallableSlot*, 3> kPublisherSlots{
    &g_publisher_callbacks.on_error_cb, &g_publisher_callbacks.on_stream_created_cb,
    &g_publisher_callbacks.on_stream_destroyed_cb};

// Audio blocks and frames of which a program still had a view when its callable returned.
extern std::atomic<uint64_t> g_escaped_views;

// Makes the interpreter's exit wait for native threads: registers the two steps below. Once; a
// failure to register is ignored.
void register_exit_hooks();

// Before finalisation, under the interpreter lock, which it releases: closes the entry to Python
// and waits, at most 5 seconds, until no thread is in Python or the controller.
void close_bridge();

// After finalisation, with no lock: ends the controller, once no thread is inside it. If either
// wait fails the controller is leaked: ending it would wait for a thread that never returns.
void tavrin_video_cleanup();
