/* Voice activity: whether a person speaks in a stream of sound, every 10 ms. A C interface, for
 * ctypes.
 *
 * One detector serves one stream. One thread at a time uses it; several detectors are independent.
 */
#ifndef TAVRIN_SPEECH_H
#define TAVRIN_SPEECH_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TAVRIN_SPEECH_RATE 16000
#define TAVRIN_SPEECH_BLOCK 160 /* samples of 10 ms */

typedef struct tavrin_speech tavrin_speech;

/* What is known of 10 ms. */
typedef struct tavrin_speech_block {
  float probability; /* that somebody speaks, 0 to 1 */
  float level;       /* root mean square; 1 is full scale */
  int32_t
      voice; /* 1 if the detector takes it for voice by itself, without what was before and after */
} tavrin_speech_block;

/* NULL when memory runs out. The caller deletes it. */
__attribute__((visibility("default"))) tavrin_speech* tavrin_speech_new(void);
__attribute__((visibility("default"))) void tavrin_speech_delete(tavrin_speech* detector);

/* Takes 16-bit samples, interleaved, of any rate from 8000 to 48000 Hz and one or two channels;
 * another form than the last one's begins a new stream. Writes each complete 10 ms, as 160 samples
 * of 16 kHz to `samples_out` and as one item to `blocks_out`, and keeps the rest for the next call.
 *
 * frames: of `samples`, at most 100 ms. capacity: blocks that fit into both outputs, 12 at least.
 * Returns the number of blocks written; -1 for arguments that are out of range, with the detector
 * unchanged. */
__attribute__((visibility("default"))) int tavrin_speech_process(
    tavrin_speech* detector, const int16_t* samples, int frames, int rate, int channels,
    int16_t* samples_out, tavrin_speech_block* blocks_out, int capacity);

#ifdef __cplusplus
}
#endif

#endif
