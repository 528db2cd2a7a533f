/*
 * Captions that the program itself sends with what it publishes: an addition of our libsarnet.so to the
 * contract. Another library of the contract need not have these functions, so a program that must run
 * with any library looks them up at run time.
 *
 * The text reaches all current subscribers to the stream with captions at once, and none that subscribe
 * later. Text that is not final may be replaced by the next one. Both functions may be called from any
 * thread, within callbacks too; neither waits.
 */
#ifndef SARNET_SARNET_CAPTIONS_H
#define SARNET_SARNET_CAPTIONS_H

#include <sarnet/sarnet.h>

#ifdef __cplusplus
extern "C" {
#endif

/* UTF-8, at most this many bytes without the terminating zero. */
#define SRN_CAPTION_MAX_BYTES 4096

/* One caption with the stream of one publisher. 1011 for an invalid publisher or a text that is null,
 * empty or too long; 1015 when the publisher is not published, or without captions
 * (srn_publisher_set_publish_captions). */
SRN_API srn_status srn_publisher_send_caption(srn_publisher* publisher, const char* text,
                                              srn_bool is_final);

/* The same with everything that the process publishes with captions, for programs whose publisher is
 * held by a module. 1015 when there is nothing of the kind. */
SRN_API srn_status srn_captions_send(const char* text, srn_bool is_final);

#ifdef __cplusplus
}
#endif

#endif /* SARNET_SARNET_CAPTIONS_H */
