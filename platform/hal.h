/* SPDX-License-Identifier: Apache-2.0 */
/* The hardware layer of the morva platform, as far as the agent uses it. */
#ifndef MORVA_PLATFORM_HAL_H
#define MORVA_PLATFORM_HAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One layer-2 address of the switch chip: 20 bytes, host byte order. */
struct hal_mac_entry {
  uint32_t port;       /* interface index, as uif_lookup_by_index takes it */
  uint32_t type;       /* 2: a learnt address */
  uint32_t aging_time; /* non-zero while the chip keeps the entry */
  uint16_t vid;        /* VLAN id */
  uint8_t mac[6];
};

/*
 * Attaches the process to the hardware layer; `client` is the platform's number of the daemon.
 * There is one process for each number: where one that works holds it already, the call logs so and
 * ends this process with status 1, before it can disturb the other; one that is stopped or stuck is
 * ended, and its number taken over. Returns 0, or -1.
 */
int hal_init(int client);

/*
 * 1: frames of the gateway's ethertype reach the processor; 0: they are stopped. Returns 0, or -1.
 * Before thread_main has applied the saved configuration an opening is only noted, with 0; the last
 * one is passed on after that, unless a closing followed. A closing takes effect at once. What
 * came in before may still wait at the daemon's sockets.
 */
int hal_qel_enable(int enable);

/*
 * Reads up to `batch` entries from position `start` into `entries` (the caller's, room for `batch`)
 * and their number into `*count` (never above `batch`; below it at the end of the table).
 * `select` picks the kind of table; the three last arguments are 0. Returns 0, or negative.
 */
int hal_mac_get(struct hal_mac_entry* entries, uint32_t start, uint32_t batch, uint32_t select,
                uint32_t* count, uint32_t reserved1, uint32_t reserved2, uint32_t reserved3);

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_HAL_H */
