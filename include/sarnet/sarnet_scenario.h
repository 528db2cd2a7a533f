/*
 * Checks a scenario of the embedded engine without playing it: an addition of our libsarnet.so to the
 * contract. Another library of the contract need not have this function, so a program that must run with
 * any library looks it up at run time.
 */
#ifndef SARNET_SARNET_SCENARIO_H
#define SARNET_SARNET_SCENARIO_H

#include <sarnet/sarnet.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reads a scenario and opens the media files that it names, as joining a session with it would, but
 * records nothing and leaves every file as it is. Returns 0 when it can be played, else the length of
 * the error text that joining would give, which is written into the caller's buffer, zero-terminated. As
 * with snprintf, a result of `capacity` or more means that the text was cut; `error` may then be null. A
 * path that is null is wrong, too. Any thread, also without srn_init; blocks on the disk. */
SRN_API size_t srn_scenario_check(const char* path, char* error, size_t capacity);

#ifdef __cplusplus
}
#endif

#endif /* SARNET_SARNET_SCENARIO_H */
