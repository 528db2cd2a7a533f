/*
 * Control of the scripted `libsarnet.so`: a stand-in for the real-time library under a test's
 * control. It implements the whole contract with no media of its own, logs every call, answers as a
 * real library would unless told otherwise, and can be made to fail, be late, give false data and
 * repeat itself.
 *
 * Plain C, so that both GoogleTest (linked) and Python (ctypes) can drive it. Every function may be
 * called from any thread at any time. Functions that deliver something return 1 when a callback was
 * found for it (for posted events: when it was accepted), else 0. Text given in is copied.
 *
 * Which handle: session events go to the newest live session (or the one chosen with
 * scripted_choose_session), publisher events to the newest live publisher, subscriber events and
 * media to the newest live subscriber of the named stream. Handles are numbered from 1 for each
 * kind, anew after scripted_reset.
 *
 * Ids that the library makes up: "publisher-N", "subscriber-N", and "published-N" for the stream of
 * publisher N. The own connection is "own-connection" with data "own-data", time 1700000000000.
 */
#ifndef TAVRIN_TESTS_SUPPORT_SCRIPTED_SARNET_H
#define TAVRIN_TESTS_SUPPORT_SCRIPTED_SARNET_H

#include <sarnet/sarnet.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SCRIPTED_API __attribute__((visibility("default")))

/* ---- Log, failures, answers ---- */

/* Forgets its script, its log and its handles; drops events not yet delivered, stops storms,
 * releases a blocked read. Handles that a test still holds stay valid to delete. The installed
 * audio device stays. Not from inside a callback. */
SCRIPTED_API void scripted_reset(void);

/* The calls so far, one to a line: name(argument=value, ...). Texts are quoted, handles are numbers
 * or "null", a callback table is the list of its filled slots. Calls made per frame or audio period
 * are counted, but not logged. Valid until the next call on the same thread. */
SCRIPTED_API const char* scripted_calls(void);
/* 0 turns the log off (counts go on), for benchmarks. */
SCRIPTED_API void scripted_log(int on);
/* How often a function of the contract was called since the last reset; -1: no such function. */
SCRIPTED_API long scripted_call_count(const char* function);
/* Waits until the function has been called at least `count` times: 1, or 0 after `timeout_ms`. */
SCRIPTED_API int scripted_wait_calls(const char* function, long count, int timeout_ms);
/* When the newest of at most 4096 calls were made, oldest first, in nanoseconds of the steady
 * clock; the number given. For the functions that move media out of the program and into it. */
SCRIPTED_API size_t scripted_times(const char* function, int64_t* out, size_t max);
/* A reference for those times: wakes `count` times at `period_ns`, by the absolute clock and doing
 * nothing else, on the caller's thread. */
SCRIPTED_API void scripted_bare_ticks(int64_t period_ns, int64_t* out, size_t count);

/* Breaches of the contract that the library noticed: handles used after their delete, deleted twice
 * or of the wrong kind, deletes that waited too long for a callback. */
SCRIPTED_API long scripted_faults(void);
SCRIPTED_API const char* scripted_fault_texts(void);
/* Handles of a kind that were made and not deleted: "session", "session_settings", "publisher",
 * "publisher_settings", "subscriber", "stream", "connection", "frame". Objects that only lived
 * inside a callback do not count. */
SCRIPTED_API long scripted_live(const char* kind);

/* Makes the next `times` calls of a function fail (-1: all, 0: no more). Functions with a status
 * return `status`, those with a pointer null, those with a count 0. */
SCRIPTED_API void scripted_fail(const char* function, int32_t status, int times);
SCRIPTED_API void scripted_own_connection(const char* id, const char* data, const char* session_id,
                                          int64_t creation_time);

/* How the library answers by itself: "none", "normal" (all, after a reset), "error" (code 2000,
 * "scripted error"), "twice", "error_then_normal". To what:
 *   "connected" "disconnected" "stream_created" "subscriber_connected"   connect, disconnect,
 *       publish, subscribe; the first two tell the session, the others the publisher or subscriber
 *   "audio_device"     the return of on_connected: init, then is/get/init/start of the capturer
 *       and the renderer; stop and destroy with the session's end
 *   "video_capturer"   publish with a video track: init, get_capture_settings, start; destroy
 *       inside srn_publisher_delete
 * An unknown event or answer gives 0. */
SCRIPTED_API int scripted_answer(const char* event, const char* how);
/* Delay before an answer; 0 except for "audio_device", which is 100. "media_gap" delays each audio
 * block, picture and caption between the moment it counts as begun and the call of the slot. */
SCRIPTED_API int scripted_delay(const char* event, int milliseconds);
/* A misbehaving library: while on, session and subscriber callbacks come for deleted handles too.
 */
SCRIPTED_API void scripted_rogue(int on);

/* ---- Events, delivered on the one event thread in the order of posting ---- */

/* 1 when everything posted (delayed answers included) has been delivered, 0 after `timeout_ms`. */
SCRIPTED_API int scripted_wait_idle(int timeout_ms);

/* 0: the newest live session again. */
SCRIPTED_API void scripted_choose_session(long number);
SCRIPTED_API int scripted_session_connected(void);
SCRIPTED_API int scripted_session_disconnected(void);
SCRIPTED_API int scripted_session_error(int32_t code, const char* text);
/* A null `id` gives an object whose id is null; the ..._null forms give no object at all. */
SCRIPTED_API int scripted_connection_created(const char* id, const char* data, int64_t time);
SCRIPTED_API int scripted_connection_dropped(const char* id, const char* data, int64_t time);
SCRIPTED_API int scripted_connection_created_null(void);
SCRIPTED_API int scripted_connection_dropped_null(void);
/* A null `connection_id` gives a stream without a connection. */
SCRIPTED_API int scripted_stream_received(const char* id, const char* connection_id,
                                          const char* connection_data, int64_t time);
SCRIPTED_API int scripted_stream_dropped(const char* id, const char* connection_id,
                                         const char* connection_data, int64_t time);
SCRIPTED_API int scripted_stream_received_null(void);
SCRIPTED_API int scripted_stream_dropped_null(void);

SCRIPTED_API int scripted_publisher_stream_created(const char* id);
SCRIPTED_API int scripted_publisher_stream_destroyed(const char* id);
SCRIPTED_API int scripted_publisher_stream_created_null(void);
SCRIPTED_API int scripted_publisher_stream_destroyed_null(void);
SCRIPTED_API int scripted_publisher_error(int32_t code, const char* text);

SCRIPTED_API int scripted_subscriber_connected(const char* stream_id);
SCRIPTED_API int scripted_subscriber_disconnected(const char* stream_id);
SCRIPTED_API int scripted_subscriber_error(const char* stream_id, int32_t code, const char* text);

/* ---- Media to subscribers ----
 * Called on the caller's thread and finished on return, or, after
 * scripted_media_on_delivery_threads(1), copied and handed to delivery threads of the library (one
 * for audio, one for pictures, one for captions; scripted_wait_idle waits for them). One call of a
 * kind at a time for each subscriber. */

SCRIPTED_API void scripted_media_on_delivery_threads(int on);
/* `samples` null gives a block whose sample pointer is null. */
SCRIPTED_API int scripted_audio(const char* stream_id, const int16_t* samples, size_t channels,
                                size_t frames, int32_t rate);
/* A null record instead of a block. */
SCRIPTED_API int scripted_audio_null(const char* stream_id);
SCRIPTED_API int scripted_caption(const char* stream_id, const char* text, int32_t is_final);

/* A picture. Zero in every field but format and sizes is a well-formed contiguous one. A pixel byte
 * is (fill + 50 * plane + row + column) mod 256, a padding byte 0xEE; column counts bytes. Formats
 * other than YUV420P, NV12 and NV21 have one plane of 4 bytes a pixel (RGB24: 3). */
struct scripted_frame_spec {
  int32_t format;        /* as reported: srn_video_frame_format */
  int32_t width;         /* as reported */
  int32_t height;        /* as reported */
  int32_t apart;         /* 1: planes lie apart, get_buffer gives null */
  int32_t missing;       /* bit mask of planes whose pointer is given as null */
  int32_t fill;          /* first byte */
  int32_t stride[3];     /* bytes from row to row, 0: tight; more than the row is padding */
  int32_t rows[3];       /* rows reported for a plane, 0: the true number, -1: report 0 */
  int64_t buffer_size;   /* size reported, 0: the true size, -1: report 0 */
  int32_t plane_rows[3]; /* rows really present in memory, 0: the true number */
};
SCRIPTED_API int scripted_frame(const char* stream_id, const struct scripted_frame_spec* spec);
/* A null frame instead of a picture. */
SCRIPTED_API int scripted_frame_null(const char* stream_id);

/* Calls the slot `count` times in a row on a native thread of its own, with 10 ms of stereo 48 kHz
 * audio, or with contiguous YUV420P pictures of the size. Mean nanoseconds for one; negative when
 * nothing is subscribed to the stream. */
SCRIPTED_API double scripted_fire_audio(const char* stream_id, long count);
SCRIPTED_API double scripted_fire_frames(const char* stream_id, long count, int32_t width,
                                         int32_t height);

/* Audio and pictures at a rate (a second and stream; 0: none, -1: without a pause), on `threads`
 * delivery threads that tick every 10 ms of the absolute clock, for the streams named in
 * `stream_ids` (joined by commas) as long as they are subscribed to. What is delivered was prepared
 * at the start. A second start stops the first. */
SCRIPTED_API int scripted_storm_start(const char* stream_ids, double audio_per_second,
                                      double video_per_second, int32_t width, int32_t height,
                                      int threads);
/* Stops and joins; the number of callbacks made. Not from inside a callback. */
SCRIPTED_API long scripted_storm_stop(void);

/* ---- Audio in and out ---- */

/* Channels of the program's buffers: taken from get_capture_settings and get_render_settings when
 * the library asks for them, or set here. 1 after a reset. */
SCRIPTED_API void scripted_capture_channels(int channels);
SCRIPTED_API void scripted_render_channels(int channels);

/* Samples (all channels) that srn_audio_device_write_capture_data got since the reset; those still
 * kept (the newest 2,097,152) are read from position `from` on; returns the number read. */
SCRIPTED_API uint64_t scripted_captured_total(void);
SCRIPTED_API size_t scripted_captured(uint64_t from, int16_t* out, size_t max);

/* Frames that srn_audio_device_read_render_data gives: -1 all that are requested (the state after a
 * reset). Its samples are the running sample number mod 32768. */
SCRIPTED_API void scripted_render_answer(long frames);
/* 1: reads block until 0 or a reset. */
SCRIPTED_API void scripted_render_block(int on);

/* Starts the "audio_device" answer at once, for a test that knows that the program is ready. 0 when
 * no session is joined. */
SCRIPTED_API int scripted_device_start(void);
/* The result of a slot of the audio device, called on the caller's thread; -1 when there is no
 * table or the slot is null; -2 for an unknown name. The settings slots get a null record here. */
SCRIPTED_API int scripted_device_slot(const char* slot);
SCRIPTED_API int scripted_device_slot_with(const char* slot, void* user_data);
/* "get_capture_settings" or "get_render_settings" with a record; the result as above. */
SCRIPTED_API int scripted_device_settings(const char* slot, int32_t* rate, int32_t* channels);
SCRIPTED_API void* scripted_device_user_data(void);

/* ---- Pictures from the program, and objects to hand to code under test ---- */

struct scripted_provided_frame {
  int64_t handle; /* number of the frame handle */
  int32_t rotation;
  int32_t format;
  int32_t width;
  int32_t height;
  uint64_t size;     /* bytes of the buffer */
  uint32_t checksum; /* CRC-32 of the buffer, as by zlib.crc32 */
  uint8_t first[12]; /* first bytes of the buffer */
};
SCRIPTED_API long scripted_provided_count(void);
/* The frame of that position (0: the first; the newest 4096 are kept). */
SCRIPTED_API int scripted_provided(long position, struct scripted_provided_frame* out);
/* A capturer handle without a publisher, for srn_video_capturer_provide_frame; always the same. */
SCRIPTED_API const srn_video_capturer* scripted_video_capturer(void);

/* Deleted with srn_stream_delete and srn_video_frame_delete. */
SCRIPTED_API srn_stream* scripted_stream_new(const char* id, const char* connection_id,
                                             const char* connection_data, const char* session_id,
                                             int64_t creation_time);
SCRIPTED_API srn_video_frame* scripted_frame_new(const struct scripted_frame_spec* spec);

#ifdef __cplusplus
}
#endif

#endif /* TAVRIN_TESTS_SUPPORT_SCRIPTED_SARNET_H */
