/*
 * Counters and pacing figures of our libsarnet.so, an addition to the contract: the program's audio and
 * video as it saw them, and what it had to drop. Another library of the contract need not have these
 * functions, so a program that must run with any library looks them up at run time.
 *
 * The figures cover the time since the library was loaded or since srn_statistics_reset. Every function
 * may be called from any thread at any time, also without srn_init, and never waits for a callback.
 * A percentile is the upper bound of its histogram step, at most 4 % above the true value.
 */
#ifndef SARNET_SARNET_STATISTICS_H
#define SARNET_SARNET_STATISTICS_H

#include <sarnet/sarnet.h>

#ifdef __cplusplus
extern "C" {
#endif

/* How punctual the program's writes of captured audio are: each one's lateness against an ideal grid of
 * its period (10 ms as a rule) that follows the program's earliest writes. Periods that it skips, and
 * does not make up for, are gaps and make no write late. Microseconds. */
struct srn_lateness_statistics {
  int64_t p50;
  int64_t p99;
  int64_t max;
};

/* How long something took. Microseconds. */
struct srn_time_statistics {
  int64_t p50;
  int64_t p99;
  int64_t max;
};

/* The program's callbacks for one kind of media, of all subscribers. */
struct srn_callback_statistics {
  struct srn_time_statistics waited; /* from the media being ready to the call of the callback */
  struct srn_time_statistics took;   /* from that call to its return */
};

struct srn_statistics {
  /* Set by the caller to sizeof(struct srn_statistics): a later library may know more fields. */
  size_t size;

  /* srn_audio_device_write_capture_data */
  uint64_t capture_periods_written; /* calls that carried samples */
  uint64_t capture_frames_written;  /* samples of one channel */
  uint64_t capture_silence_periods; /* calls with nothing but zeros */
  uint64_t capture_gaps;            /* periods of the grid in which the program wrote nothing */
  uint64_t capture_underruns;       /* times that captured audio ran out, and silence went on */
  struct srn_lateness_statistics capture_lateness;

  /* srn_audio_device_read_render_data */
  uint64_t render_periods_read;   /* calls that asked for frames */
  uint64_t render_silent_periods; /* calls that found nothing to mix */
  int64_t mixer_delay_us; /* longest audio now queued in front of the mixer, of any stream */

  /* srn_video_capturer_provide_frame */
  uint64_t frames_provided; /* accepted frames, the following three kinds among them */
  uint64_t frames_repeated; /* the same frame handle as the one before */
  uint64_t frames_black;    /* black throughout */
  uint64_t frames_late;     /* more than one and a half frame periods after the one before */
  uint64_t frames_dropped;  /* accepted, but not sent on: no free picture */

  /* Media for subscribers, all of them together, the deleted ones included. */
  uint64_t audio_blocks_delivered;
  uint64_t audio_blocks_dropped; /* the oldest, because the program's callback was slow */
  uint64_t pictures_delivered;
  uint64_t pictures_dropped;
  uint64_t captions_delivered;
  uint64_t captions_dropped;

  struct srn_callback_statistics audio_callbacks;   /* on_audio_data */
  struct srn_callback_statistics picture_callbacks; /* on_render_frame */
  struct srn_callback_statistics caption_callbacks; /* on_caption_text */
};

struct srn_subscriber_statistics {
  size_t size; /* set by the caller to sizeof(struct srn_subscriber_statistics) */
  uint64_t audio_blocks_delivered;
  uint64_t audio_blocks_dropped;
  uint64_t pictures_delivered;
  uint64_t pictures_dropped;
  uint64_t captions_delivered;
  uint64_t captions_dropped;
};

/* Fills the record, as far as `size` reaches. 1011 for a null record or one without a size. */
SRN_API srn_status srn_statistics_get(struct srn_statistics* statistics);

/* The same for one living subscriber. 1011 for a subscriber that is null or deleted. */
SRN_API srn_status srn_statistics_get_subscriber(const srn_subscriber* subscriber,
                                                 struct srn_subscriber_statistics* statistics);

/* Writes the figures of the library and of each living subscriber, with its stream's id, as one JSON
 * object, zero-terminated, into the caller's buffer; returns the length of the whole text without the
 * zero. As with snprintf, a result of `capacity` or more means that the text was cut; `buffer` may then
 * be null. */
SRN_API size_t srn_statistics_json(char* buffer, size_t capacity);

/* Sets the counters of the library (not those of the subscribers) to zero. */
SRN_API srn_status srn_statistics_reset(void);

#ifdef __cplusplus
}
#endif

#endif /* SARNET_SARNET_STATISTICS_H */
