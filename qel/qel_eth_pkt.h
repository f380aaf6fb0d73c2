// SPDX-License-Identifier: Apache-2.0
//
// Tracking of packets that come in several fragments, by a 64-bit id. Created at start-up; nothing
// in the agent adds to it yet.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qel/qel_link.h"
#include "qel/qel_pool.h"

inline constexpr size_t kQelPktPayload = 65544;

struct qel_eth_pkt {
  uint64_t id;
  uint64_t mask;  // (1 << fragments) - 1, computed in 32 bits and sign-extended
  uint32_t time;  // seconds since the epoch; when adding leaves it 0 the record is soon recycled
  qel_link link;  // reply address of the packet
  uint8_t payload[kQelPktPayload];  // for the reassembled text
};
static_assert(sizeof(qel_eth_pkt) == 65616, "32 records are one block of 2,099,712 bytes");

extern qel_pool<qel_eth_pkt> g_qel_eth_pkt;
// Packet records allocated so far.
extern uint32_t g_qel_eth_total;

// Creates both lists and the first block.
void qel_eth_pkt_list_init();
// Adds one block of 32 records to the free list; without memory the process ends.
void qel_eth_pkt_list_expand();
// Frees every used record of 5 seconds and older.
void qel_eth_pkt_list_recycle();
// A record on the used list: a free one, else a recycled one, else one of a new block. Never null.
qel_eth_pkt* qel_eth_pkt_take();
// The first used record with that id, or null.
qel_eth_pkt* qel_eth_pkt_lookup(uint64_t id);
// The record with that id; if there is none, a new one for a packet of `fragments` fragments whose
// answer goes to `link`. `text` is the fragment that came; how it is put together is not settled.
qel_eth_pkt* qel_eth_pkt_lookup_add(uint64_t id, const char* text, int fragments,
                                    const qel_link* link);
// Frees the record with that id. Returns 0, or -1 when there is none.
int qel_eth_pkt_release(uint64_t id);
// Prints the used list to standard output.
void qel_eth_pkt_show_list();
