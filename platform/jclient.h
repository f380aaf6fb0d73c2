/* SPDX-License-Identifier: Apache-2.0 */
/* Queries to the other daemons (modules) of the switch. */
#ifndef MORVA_PLATFORM_JCLIENT_H
#define MORVA_PLATFORM_JCLIENT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes that every reply area must have: the longest reply and its closing NUL. */
#define JCLIENT_REPLY_SIZE 65535

/*
 * Sends `request` (NUL-terminated JSON text with a member "mdl" that names the module) and waits
 * for the answer, up to the platform's deadline. `reply` has JCLIENT_REPLY_SIZE bytes and receives
 * the answer as NUL-terminated text; it is left untouched when there is none, when it is longer
 * than fits, or when it did not come whole. With a NULL `reply` nothing is waited for.
 * Returns 0, or -1 when the request was not delivered or not answered.
 */
int jclient_query(const char* request, char* reply);

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_JCLIENT_H */
