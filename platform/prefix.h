/* SPDX-License-Identifier: Apache-2.0 */
/* Address arithmetic of the morva platform. */
#ifndef MORVA_PLATFORM_PREFIX_H
#define MORVA_PLATFORM_PREFIX_H

#include <netinet/in.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The prefix length of an IPv4 netmask (network byte order): the number of leading one bits, 0..32.
 * Bits behind the first zero bit are not looked at.
 */
int ip_masklen(struct in_addr netmask);

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_PREFIX_H */
