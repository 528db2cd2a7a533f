/*
 * The contract between a program and `libsarnet.so`, the real-time library that does signalling,
 * transport and coding. Valid C11; the one header that both sides include.
 *
 * Conventions, stated once:
 *  - Threads. Every function may be called from any thread at any time, callbacks included, unless its
 *    comment says otherwise. Callbacks come on threads of the library; none runs inside a call of the
 *    program on the same thread, except a video capturer's `destroy`.
 *  - Ownership. A function whose name ends in `_new...`, `_copy` or that says "new" gives an object that
 *    the caller deletes with the matching `_delete`. What a callback receives lives until the callback
 *    returns. Strings given to the library are copied before the call returns.
 *  - Null. A null handle or required pointer is never a fault: functions that return `srn_status` give
 *    SRN_SESSION_NULL_OR_INVALID_PARAMETER (1011), functions that return a pointer give null, functions
 *    that return a number give 0 (or SRN_VIDEO_FRAME_FORMAT_UNKNOWN), deletes do nothing and give 0.
 *  - Status. 0 is success, any other value a failure, a value of the error enumerations where one fits.
 *  - Text is UTF-8 and zero-terminated. Times are milliseconds since the Unix epoch.
 *  - Audio is interleaved signed 16-bit PCM in native byte order. A "frame" of audio is one sample for
 *    each channel; all counts are frames unless said otherwise.
 *
 * All functions are exported under the symbol version `sarnet`; the SONAME is `libsarnet.so`.
 */
#ifndef SARNET_SARNET_H
#define SARNET_SARNET_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(SRN_BUILDING_LIBRARY)
#define SRN_API __attribute__((visibility("default")))
#else
#define SRN_API
#endif

/* ---- Scalars ------------------------------------------------------------------------------------- */

typedef int32_t srn_bool;
typedef int32_t srn_status;

enum srn_constant { SRN_SUCCESS = 0, SRN_FALSE = 0, SRN_TRUE = 1 };

/* ---- Handles, only ever held by pointer ----------------------------------------------------------- */

typedef struct srn_session srn_session;
typedef struct srn_session_settings srn_session_settings;
typedef struct srn_publisher srn_publisher;
typedef struct srn_publisher_settings srn_publisher_settings;
typedef struct srn_subscriber srn_subscriber;
typedef struct srn_stream srn_stream;
typedef struct srn_connection srn_connection;
typedef struct srn_video_frame srn_video_frame;
typedef struct srn_video_capturer srn_video_capturer;
typedef struct srn_audio_device srn_audio_device;

/* ---- Enumerations --------------------------------------------------------------------------------- */

/* Levels of the library's own log. The names above DEBUG are other names for the same four levels. */
enum srn_log_level {
  SRN_LOG_LEVEL_DISABLED = 0,
  SRN_LOG_LEVEL_ERROR = 1,
  SRN_LOG_LEVEL_WARN = 2,
  SRN_LOG_LEVEL_INFO = 3,
  SRN_LOG_LEVEL_DEBUG = 4,
  SRN_LOG_LEVEL_FATAL = 1,
  SRN_LOG_LEVEL_MSG = 4,
  SRN_LOG_LEVEL_TRACE = 4,
  SRN_LOG_LEVEL_ALL = 4
};

enum srn_session_error_code {
  SRN_SESSION_AUTHORIZATION_FAILURE = 1004,
  SRN_SESSION_BLOCKED_COUNTRY = 1026,
  SRN_SESSION_CONNECTION_DROPPED = 1022,
  SRN_SESSION_CONNECTION_FAILED = 1006,
  SRN_SESSION_CONNECTION_LIMIT_EXCEEDED = 1027,
  SRN_SESSION_CONNECTION_REFUSED = 1023,
  SRN_SESSION_CONNECTION_TIMED_OUT = 1021,
  SRN_SESSION_FORCE_UNPUBLISH_OR_INVALID_STREAM = 1535,
  SRN_SESSION_ILLEGAL_STATE = 1015,
  SRN_SESSION_INTERNAL_ERROR = 2000,
  SRN_SESSION_INVALID_SESSION = 1005,
  SRN_SESSION_INVALID_SIGNAL_TYPE = 1461,
  SRN_SESSION_NOT_CONNECTED = 1010,
  SRN_SESSION_NO_MESSAGING_SERVER = 1503,
  SRN_SESSION_NULL_OR_INVALID_PARAMETER = 1011,
  SRN_SESSION_PUBLISHER_NOT_FOUND = 1113,
  SRN_SESSION_SIGNAL_DATA_TOO_LONG = 1413,
  SRN_SESSION_SIGNAL_TYPE_TOO_LONG = 1414,
  SRN_SESSION_UNABLE_TO_SEND_SIGNAL = 1550,
  SRN_SESSION_STATE_FAILED = 1020,
  SRN_SESSION_SUBSCRIBER_NOT_FOUND = 1112,
  SRN_SESSION_UNEXPECTED_GET_SESSION_INFO_REPONSE = 2001,
  SRN_SESSION_ENCRYPTION_SECRET_MISSING = 6000,
  SRN_SESSION_INVALID_ENCRYPTION_SECRET = 6004
};

enum srn_publisher_error_code {
  SRN_PUBLISHER_INTERNAL_ERROR = 2000,
  SRN_PUBLISHER_SESSION_DISCONNECTED = 1010,
  SRN_PUBLISHER_TIMED_OUT = 1541,
  SRN_PUBLISHER_UNABLE_TO_PUBLISH = 1500,
  SRN_PUBLISHER_WEBRTC_ERROR = 1610,
  SRN_PUBLISHER_ENCRYPTION_INTERNAL_ERROR = 6001,
  SRN_PUBLISHER_ENCRYPTION_UNSUPPORTED_CODEC = 6005
};

enum srn_subscriber_error_code {
  SRN_SUBSCRIBER_INTERNAL_ERROR = 2000,
  SRN_SUBSCRIBER_SESSION_DISCONNECTED = 1010,
  SRN_SUBSCRIBER_SERVER_CANNOT_FIND_STREAM = 1604,
  SRN_SUBSCRIBER_STREAM_LIMIT_EXCEEDED = 1605,
  SRN_SUBSCRIBER_TIMED_OUT = 1542,
  SRN_SUBSCRIBER_WEBRTC_ERROR = 1600,
  SRN_SUBSCRIBER_PEER_CONNECTION_NOT_CONNECTED = 1606,
  SRN_SUBSCRIBER_DECRYPTION_INTERNAL_ERROR = 6002,
  SRN_SUBSCRIBER_ENCRYPTION_SECRET_MISMATCH = 6003,
  SRN_SUBSCRIBER_DECRYPTION_UNSUPPORTED_CODEC = 6006
};

enum srn_video_frame_format {
  SRN_VIDEO_FRAME_FORMAT_UNKNOWN = 0,
  SRN_VIDEO_FRAME_FORMAT_YUV420P = 1,
  SRN_VIDEO_FRAME_FORMAT_NV12 = 2,
  SRN_VIDEO_FRAME_FORMAT_NV21 = 3,
  SRN_VIDEO_FRAME_FORMAT_YUY2 = 4,
  SRN_VIDEO_FRAME_FORMAT_UYVY = 5,
  SRN_VIDEO_FRAME_FORMAT_ARGB32 = 6,
  SRN_VIDEO_FRAME_FORMAT_BGRA32 = 7,
  SRN_VIDEO_FRAME_FORMAT_RGB24 = 8,
  SRN_VIDEO_FRAME_FORMAT_ABGR32 = 9,
  SRN_VIDEO_FRAME_FORMAT_MJPEG = 10,
  SRN_VIDEO_FRAME_FORMAT_RGBA32 = 11,
  SRN_VIDEO_FRAME_FORMAT_MAX = 12,
  SRN_VIDEO_FRAME_FORMAT_COMPRESSED = 255
};

enum srn_video_frame_plane {
  SRN_VIDEO_FRAME_PLANE_Y = 0,
  SRN_VIDEO_FRAME_PLANE_U = 1,
  SRN_VIDEO_FRAME_PLANE_V = 2,
  SRN_VIDEO_FRAME_PLANE_PACKED = 0,
  SRN_VIDEO_FRAME_PLANE_UV_INTERLEAVED = 1,
  SRN_VIDEO_FRAME_PLANE_VU_INTERLEAVED = 1
};

enum srn_stream_video_type {
  SRN_STREAM_VIDEO_TYPE_CAMERA = 1,
  SRN_STREAM_VIDEO_TYPE_SCREEN = 2,
  SRN_STREAM_VIDEO_TYPE_CUSTOM = 3
};

enum srn_video_reason {
  SRN_VIDEO_REASON_PUBLISH_VIDEO = 1,
  SRN_VIDEO_REASON_SUBSCRIBE_TO_VIDEO = 2,
  SRN_VIDEO_REASON_QUALITY = 3,
  SRN_VIDEO_REASON_CODEC_NOT_SUPPORTED = 4
};

/* ---- Records -------------------------------------------------------------------------------------- */

/* One block of decoded audio, given to `on_audio_data`. Owned by the library. */
struct srn_audio_data {
  const void* sample_buffer;       /* interleaved samples */
  const int32_t bits_per_sample;   /* always 16 */
  const int32_t sample_rate;       /* samples per second of one channel */
  const size_t number_of_channels; /* channels in the buffer */
  const size_t number_of_samples;  /* samples per channel */
};

/* Format of one side of the audio device, filled in by the program. */
struct srn_audio_device_settings {
  int32_t sampling_rate;      /* samples per second of one channel, 8000 to 48000 */
  int32_t number_of_channels; /* 1 or 2 */
};

/* Format of injected video, filled in by the program. */
struct srn_video_capturer_settings {
  int32_t format;                  /* a value of srn_video_frame_format */
  int32_t width;                   /* pixels */
  int32_t height;                  /* pixels */
  int32_t fps;                     /* frames per second */
  int32_t expected_delay;          /* capture delay that the library should expect, milliseconds */
  srn_bool mirror_on_local_render; /* whether a local preview is mirrored */
};

struct srn_on_mute_forced_info {
  srn_bool active;
};

struct srn_subscriber_audio_stats {
  uint64_t packets_lost;
  uint64_t packets_received;
  uint64_t bytes_received;
  float audio_level;
  double timestamp;
  int64_t sender_connection_max_allocated_bitrate;
  int64_t sender_connection_estimated_bandwidth;
};

struct srn_subscriber_video_stats {
  uint64_t packets_lost;
  uint64_t packets_received;
  uint64_t bytes_received;
  double timestamp;
  int64_t sender_connection_max_allocated_bitrate;
  int64_t sender_connection_estimated_bandwidth;
};

struct srn_publisher_audio_stats {
  const char* connection_id;
  const char* subscriber_id;
  int64_t packets_lost;
  int64_t packets_sent;
  int64_t bytes_sent;
  float audio_level;
  double timestamp;
  double start_time;
};

struct srn_publisher_video_stats {
  const char* connection_id;
  const char* subscriber_id;
  int64_t packets_lost;
  int64_t packets_sent;
  int64_t bytes_sent;
  double timestamp;
  double start_time;
};

/* ---- Callback tables ------------------------------------------------------------------------------
 * Any slot may be null. The order of the slots is part of the binary interface.
 */

/* Events of one session, delivered one at a time, in order, on the session's own library thread.
 * The table stays in place from srn_session_new_with_settings until srn_session_delete has returned. */
struct srn_session_callbacks {
  /* The session is joined. Always the first event. */
  void (*on_connected)(srn_session* session, void* user_data);
  /* The session has ended: the answer to srn_session_disconnect, or ended by the server. */
  void (*on_disconnected)(srn_session* session, void* user_data);
  /* A participant joined; before any of its streams. */
  void (*on_connection_created)(srn_session* session, void* user_data,
                                const srn_connection* connection);
  /* A participant left; after all of its streams were dropped. */
  void (*on_connection_dropped)(srn_session* session, void* user_data,
                                const srn_connection* connection);
  void (*on_stream_received)(srn_session* session, void* user_data, const srn_stream* stream);
  void (*on_stream_dropped)(srn_session* session, void* user_data, const srn_stream* stream);
  void (*on_stream_has_audio_changed)(srn_session* session, void* user_data,
                                      const srn_stream* stream, srn_bool has_audio);
  void (*on_stream_has_video_changed)(srn_session* session, void* user_data,
                                      const srn_stream* stream, srn_bool has_video);
  void (*on_stream_has_captions_changed)(srn_session* session, void* user_data,
                                         const srn_stream* stream, srn_bool has_captions);
  void (*on_stream_video_dimensions_changed)(srn_session* session, void* user_data,
                                             const srn_stream* stream, int32_t width,
                                             int32_t height);
  void (*on_stream_video_type_changed)(srn_session* session, void* user_data,
                                       const srn_stream* stream, enum srn_stream_video_type type);
  void (*on_signal_received)(srn_session* session, void* user_data, const char* type,
                             const char* signal, const srn_connection* connection);
  void (*on_reconnection_started)(srn_session* session, void* user_data);
  void (*on_reconnected)(srn_session* session, void* user_data);
  void (*on_archive_started)(srn_session* session, void* user_data, const char* archive_id,
                             const char* name);
  void (*on_archive_stopped)(srn_session* session, void* user_data, const char* archive_id);
  /* The session failed and is over; no further event of it follows. The text is never null. */
  void (*on_error)(srn_session* session, void* user_data, const char* description,
                   enum srn_session_error_code code);
  void (*on_mute_forced)(srn_session* session, void* user_data,
                         struct srn_on_mute_forced_info info);
  void* user_data;
  void* reserved; /* null */
};

/* Events of one publisher, on the thread of its session. The table stays in place until
 * srn_publisher_delete has returned; `user_data` is read anew for each call. */
struct srn_publisher_callbacks {
  void (*on_stream_created)(srn_publisher* publisher, void* user_data, const srn_stream* stream);
  void (*on_stream_destroyed)(srn_publisher* publisher, void* user_data, const srn_stream* stream);
  void (*on_render_frame)(srn_publisher* publisher, void* user_data, const srn_video_frame* frame);
  void (*on_audio_level_updated)(srn_publisher* publisher, void* user_data, float audio_level);
  void (*on_publisher_mute_forced)(srn_publisher* publisher, void* user_data);
  void (*on_audio_stats)(srn_publisher* publisher, void* user_data,
                         struct srn_publisher_audio_stats* stats, size_t count);
  void (*on_video_stats)(srn_publisher* publisher, void* user_data,
                         struct srn_publisher_video_stats* stats, size_t count);
  void (*on_error)(srn_publisher* publisher, void* user_data, const char* description,
                   enum srn_publisher_error_code code);
  void (*on_video_disabled)(srn_publisher* publisher, void* user_data,
                            enum srn_video_reason reason);
  void (*on_video_enabled)(srn_publisher* publisher, void* user_data, enum srn_video_reason reason);
  void (*on_video_disable_warning)(srn_publisher* publisher, void* user_data);
  void (*on_video_disable_warning_lifted)(srn_publisher* publisher, void* user_data);
  void* user_data;
  void* reserved; /* null */
};

/* Events and media of one subscriber. State events come on the session's thread, media and captions on
 * delivery threads of their own, one call of a kind at a time. srn_subscriber_new copies the table. */
struct srn_subscriber_callbacks {
  void (*on_connected)(srn_subscriber* subscriber, void* user_data, const srn_stream* stream);
  void (*on_disconnected)(srn_subscriber* subscriber, void* user_data);
  void (*on_reconnected)(srn_subscriber* subscriber, void* user_data);
  /* A decoded picture, always YUV420P. */
  void (*on_render_frame)(srn_subscriber* subscriber, void* user_data,
                          const srn_video_frame* frame);
  void (*on_video_disabled)(srn_subscriber* subscriber, void* user_data,
                            enum srn_video_reason reason);
  void (*on_video_enabled)(srn_subscriber* subscriber, void* user_data,
                           enum srn_video_reason reason);
  void (*on_audio_disabled)(srn_subscriber* subscriber, void* user_data);
  void (*on_audio_enabled)(srn_subscriber* subscriber, void* user_data);
  void (*on_video_data_received)(srn_subscriber* subscriber, void* user_data);
  void (*on_video_disable_warning)(srn_subscriber* subscriber, void* user_data);
  /* One caption; `is_final` is exactly 1 for text that will not be revised. */
  void (*on_caption_text)(srn_subscriber* subscriber, void* user_data, const char* text,
                          srn_bool is_final);
  void (*on_video_disable_warning_lifted)(srn_subscriber* subscriber, void* user_data);
  void (*on_audio_stats)(srn_subscriber* subscriber, void* user_data,
                         struct srn_subscriber_audio_stats stats);
  void (*on_video_stats)(srn_subscriber* subscriber, void* user_data,
                         struct srn_subscriber_video_stats stats);
  void (*on_audio_level_updated)(srn_subscriber* subscriber, void* user_data, float audio_level);
  void (*on_error)(srn_subscriber* subscriber, void* user_data, const char* description,
                   enum srn_subscriber_error_code code);
  /* One block of decoded audio, 10 ms as a rule. */
  void (*on_audio_data)(srn_subscriber* subscriber, void* user_data,
                        const struct srn_audio_data* data);
  void* user_data;
  void* reserved; /* null */
};

/* The program's audio device: gives the library microphone input and receives the mix. All slots come on
 * one library thread, never two at once; results are SRN_TRUE or SRN_FALSE. */
struct srn_audio_device_callbacks {
  srn_bool (*init)(const srn_audio_device* device, void* user_data);
  srn_bool (*destroy)(const srn_audio_device* device, void* user_data);
  srn_bool (*init_capturer)(const srn_audio_device* device, void* user_data);
  srn_bool (*destroy_capturer)(const srn_audio_device* device, void* user_data);
  srn_bool (*start_capturer)(const srn_audio_device* device, void* user_data);
  /* May block for one audio period. */
  srn_bool (*stop_capturer)(const srn_audio_device* device, void* user_data);
  srn_bool (*is_capturer_initialized)(const srn_audio_device* device, void* user_data);
  srn_bool (*is_capturer_started)(const srn_audio_device* device, void* user_data);
  srn_bool (*get_estimated_capture_delay)(const srn_audio_device* device, void* user_data);
  srn_bool (*get_capture_settings)(const srn_audio_device* device, void* user_data,
                                   struct srn_audio_device_settings* settings);
  srn_bool (*init_renderer)(const srn_audio_device* device, void* user_data);
  srn_bool (*destroy_renderer)(const srn_audio_device* device, void* user_data);
  srn_bool (*start_renderer)(const srn_audio_device* device, void* user_data);
  /* May block for one audio period. */
  srn_bool (*stop_renderer)(const srn_audio_device* device, void* user_data);
  srn_bool (*is_renderer_initialized)(const srn_audio_device* device, void* user_data);
  srn_bool (*is_renderer_started)(const srn_audio_device* device, void* user_data);
  srn_bool (*get_estimated_render_delay)(const srn_audio_device* device, void* user_data);
  srn_bool (*get_render_settings)(const srn_audio_device* device, void* user_data,
                                  struct srn_audio_device_settings* settings);
  void* user_data;
  void* reserved; /* null */
};

/* A publisher's picture source. Called in the order init, get_capture_settings, start, destroy, for a
 * publisher with a video track only. The handle of `init` is valid until `destroy` has returned. */
struct srn_video_capturer_callbacks {
  srn_bool (*init)(const srn_video_capturer* capturer, void* user_data);
  srn_bool (*destroy)(const srn_video_capturer* capturer, void* user_data);
  srn_bool (*start)(const srn_video_capturer* capturer, void* user_data);
  srn_bool (*stop)(const srn_video_capturer* capturer, void* user_data);
  srn_bool (*get_capture_settings)(const srn_video_capturer* capturer, void* user_data,
                                   struct srn_video_capturer_settings* settings);
  void* user_data;
  void* reserved; /* null */
};

/* ---- The library's lifetime ----------------------------------------------------------------------- */

/* Prepares the library. `reserved` is null. May be repeated, also after a failure or srn_destroy. */
SRN_API srn_status srn_init(void* reserved);

/* Ends every session and joins every thread of the library; nothing calls back afterwards. May come
 * without a successful srn_init and more than once. Not from inside a callback. */
SRN_API srn_status srn_destroy(void);

/* Sets the level of the library's log, written to standard error. Works at any time. */
SRN_API srn_status srn_log_enable(enum srn_log_level level);

/* Installs the process's one audio device; works before srn_init; a later call replaces the table, and
 * null removes it. `user_data` must stay valid until srn_destroy has returned. */
SRN_API srn_status srn_set_audio_device(const struct srn_audio_device_callbacks* callbacks);

/* ---- Sessions ------------------------------------------------------------------------------------- */

/* New settings, or null. There is no delete: srn_session_new_with_settings takes them over, even if it
 * fails. */
SRN_API srn_session_settings* srn_session_settings_new(void);

/* Whether the session may move between servers. */
SRN_API srn_status srn_session_settings_set_session_migration(srn_session_settings* settings,
                                                              srn_bool enabled);

/* A new session, not yet joined, or null. `api_key` may be an application id. Takes `settings` over
 * (null: defaults). */
SRN_API srn_session* srn_session_new_with_settings(const char* api_key, const char* session_id,
                                                   const struct srn_session_callbacks* callbacks,
                                                   srn_session_settings* settings);

/* Starts joining and returns at once. Status 0: on_connected or on_error follows, after this call has
 * returned. A host that names no engine gives 1011. */
SRN_API srn_status srn_session_connect_to_host(srn_session* session, const char* host,
                                               const char* path, uint32_t port, srn_bool secure,
                                               const char* token);

/* Leaves the session. Status 0: exactly one of on_disconnected and on_error follows, within 5 seconds.
 * 1010 when nothing is open. Does not wait. */
SRN_API srn_status srn_session_disconnect(srn_session* session);

/* Frees the session; a joined one is left silently. When it returns no callback of the session starts
 * any more; waits for one that is running on another thread. */
SRN_API srn_status srn_session_delete(srn_session* session);

/* The own connection of a joined session: new, deleted with srn_connection_delete; null before. */
SRN_API srn_connection* srn_session_get_connection(srn_session* session);

/* Binds the publisher to a joined session. Status 0: on_stream_created or on_error of the publisher
 * follows, after this call has returned. */
SRN_API srn_status srn_session_publish(srn_session* session, srn_publisher* publisher);

/* Unbinds the publisher. Does not wait for callbacks. */
SRN_API srn_status srn_session_unpublish(srn_session* session, srn_publisher* publisher);

/* Binds the subscriber. Status 0: on_connected or on_error of the subscriber follows, after this call
 * has returned. */
SRN_API srn_status srn_session_subscribe(srn_session* session, srn_subscriber* subscriber);

/* Unbinds the subscriber. Never waits for a media callback. */
SRN_API srn_status srn_session_unsubscribe(srn_session* session, srn_subscriber* subscriber);

/* ---- Publishers ----------------------------------------------------------------------------------- */

/* New settings, or null. */
SRN_API srn_publisher_settings* srn_publisher_settings_new(void);
/* Allowed as soon as srn_publisher_new_with_settings has returned. */
SRN_API srn_status srn_publisher_settings_delete(srn_publisher_settings* settings);
SRN_API srn_status srn_publisher_settings_set_name(srn_publisher_settings* settings,
                                                   const char* name);
SRN_API srn_status srn_publisher_settings_set_audio_track(srn_publisher_settings* settings,
                                                          srn_bool enabled);
SRN_API srn_status srn_publisher_settings_set_video_track(srn_publisher_settings* settings,
                                                          srn_bool enabled);
SRN_API srn_status srn_publisher_settings_set_stereo(srn_publisher_settings* settings,
                                                     srn_bool enabled);
/* The next three are accepted and have no effect: this library does not process sound. */
SRN_API srn_status srn_publisher_settings_set_noise_suppression(srn_publisher_settings* settings,
                                                                srn_bool enabled);
SRN_API srn_status srn_publisher_settings_set_echo_cancellation(srn_publisher_settings* settings,
                                                                srn_bool enabled);
SRN_API srn_status srn_publisher_settings_set_disable_audio_processing(
    srn_publisher_settings* settings, srn_bool disabled);
SRN_API srn_status srn_publisher_settings_set_opus_dtx(srn_publisher_settings* settings,
                                                       srn_bool enabled);
/* The table stays in place until srn_publisher_delete has returned. */
SRN_API srn_status srn_publisher_settings_set_video_capturer(
    srn_publisher_settings* settings, const struct srn_video_capturer_callbacks* callbacks);

/* A new publisher, or null. Copies what it needs of `settings`. */
SRN_API srn_publisher* srn_publisher_new_with_settings(
    const struct srn_publisher_callbacks* callbacks, const srn_publisher_settings* settings);
SRN_API srn_status srn_publisher_set_publish_captions(srn_publisher* publisher, srn_bool enabled);
/* Borrowed from the publisher; never null, never empty. */
SRN_API const char* srn_publisher_get_publisher_id(const srn_publisher* publisher);
/* Returns after the capturer's `destroy` has returned and when no callback of the publisher starts any
 * more; waits for one that is running on another thread. */
SRN_API int32_t srn_publisher_delete(srn_publisher* publisher);

/* ---- Subscribers ---------------------------------------------------------------------------------- */

/* A new subscriber to the stream, or null. Copies both the stream and the table. */
SRN_API srn_subscriber* srn_subscriber_new(const srn_stream* stream,
                                           const struct srn_subscriber_callbacks* callbacks);
SRN_API srn_status srn_subscriber_set_subscribe_to_video(srn_subscriber* subscriber,
                                                         srn_bool enabled);
SRN_API srn_status srn_subscriber_set_subscribe_to_audio(srn_subscriber* subscriber,
                                                         srn_bool enabled);
SRN_API srn_status srn_subscriber_set_subscribe_to_captions(srn_subscriber* subscriber,
                                                            srn_bool enabled);
/* Asks for at most this size, in pixels; a size the library cannot serve is clamped or refused. */
SRN_API srn_status srn_subscriber_set_preferred_resolution(srn_subscriber* subscriber,
                                                           uint32_t width, uint32_t height);
/* Asks for at most this rate, in frames per second. */
SRN_API srn_status srn_subscriber_set_preferred_framerate(srn_subscriber* subscriber,
                                                          float framerate);
/* Borrowed from the subscriber; never null, never empty. */
SRN_API const char* srn_subscriber_get_subscriber_id(const srn_subscriber* subscriber);
/* When it returns no callback of the subscriber starts any more. Waits for a state event that is running
 * on another thread, never for a media callback: that one finishes on data that the library keeps. */
SRN_API int32_t srn_subscriber_delete(srn_subscriber* subscriber);

/* ---- Streams and connections ---------------------------------------------------------------------- */

/* A new, independent stream: valid after its session and after srn_destroy. */
SRN_API srn_stream* srn_stream_copy(const srn_stream* stream);
SRN_API srn_status srn_stream_delete(srn_stream* stream);
/* Borrowed from the stream; never null, never empty. */
SRN_API const char* srn_stream_get_id(const srn_stream* stream);
/* Borrowed from the stream; may be null. */
SRN_API const srn_connection* srn_stream_get_connection(const srn_stream* stream);

/* The texts are borrowed from the connection and may be null. */
SRN_API const char* srn_connection_get_id(const srn_connection* connection);
SRN_API const char* srn_connection_get_data(const srn_connection* connection);
SRN_API const char* srn_connection_get_session_id(const srn_connection* connection);
/* When the participant joined, in milliseconds since the Unix epoch. */
SRN_API int64_t srn_connection_get_creation_time(const srn_connection* connection);
/* Only for what srn_session_get_connection returned. */
SRN_API srn_status srn_connection_delete(srn_connection* connection);

/* ---- Video frames and the video capturer ---------------------------------------------------------- */

/* Called when the library has finished with wrapped memory. */
typedef void (*srn_video_frame_memory_release_callback)(void* argument);

/* A new frame over the caller's packed pixels, or null. Copies no pixels: the caller keeps `buffer` alive
 * as long as the frame. `release` may be null. */
SRN_API srn_video_frame* srn_video_frame_new_contiguous_memory_wrapper(
    enum srn_video_frame_format format, int32_t width, int32_t height, srn_bool allow_shallow_copy,
    const uint8_t* buffer, size_t buffer_size, srn_video_frame_memory_release_callback release,
    void* release_argument);
SRN_API srn_status srn_video_frame_delete(srn_video_frame* frame);
SRN_API enum srn_video_frame_format srn_video_frame_get_format(const srn_video_frame* frame);
SRN_API int32_t srn_video_frame_get_width(const srn_video_frame* frame);
SRN_API int32_t srn_video_frame_get_height(const srn_video_frame* frame);
/* The contiguous buffer, or null when the planes lie apart; its size in bytes. */
SRN_API const uint8_t* srn_video_frame_get_buffer(const srn_video_frame* frame);
SRN_API size_t srn_video_frame_get_buffer_size(const srn_video_frame* frame);
/* One plane: its first row (or null), the bytes from one row to the next, and its rows. */
SRN_API const uint8_t* srn_video_frame_get_plane_binary_data(const srn_video_frame* frame,
                                                             enum srn_video_frame_plane plane);
SRN_API int32_t srn_video_frame_get_plane_stride(const srn_video_frame* frame,
                                                 enum srn_video_frame_plane plane);
SRN_API int32_t srn_video_frame_get_plane_height(const srn_video_frame* frame,
                                                 enum srn_video_frame_plane plane);

/* Gives one picture to the publisher. `rotation` is 0, 90, 180 or 270 degrees clockwise. Never waits; done
 * with the pixels when it returns; the frame stays the caller's and may be given again. */
SRN_API srn_status srn_video_capturer_provide_frame(const srn_video_capturer* capturer,
                                                    int32_t rotation, const srn_video_frame* frame);

/* ---- The audio device's data ---------------------------------------------------------------------- */

/* Reads `count` frames of the session's mix into `buffer`, which holds count times the render channels
 * samples. Gives the full count (silence when nothing plays) within about one period, or fewer once the
 * renderer was stopped or the session has ended. */
SRN_API size_t srn_audio_device_read_render_data(int16_t* buffer, size_t count);

/* Gives `count` frames of captured audio in the capture format to the session. Never waits. Holds no lock
 * that is held while a slot of the audio device is called. */
SRN_API srn_status srn_audio_device_write_capture_data(const int16_t* buffer, size_t count);

#ifdef __cplusplus
}
#endif

#endif /* SARNET_SARNET_H */
