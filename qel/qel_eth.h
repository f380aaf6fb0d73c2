// SPDX-License-Identifier: Apache-2.0
//
// The raw Ethernet link to the gateway: opens the socket, receives and checks frames, learns the
// gateway's address from each, and hands the text to the dispatcher. Sending is qel_send.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/loop.h"
#include "qel/qel_link.h"

// Opens the raw socket for the gateway's ethertype on every interface and registers qel_eth_read.
// Returns the socket, or 0 on failure (told by perror): the agent then runs without this link.
// Called by qel_dev_init.
int qel_eth_open();

// Read callback ("qel_eth_read"): receives one frame, registers itself again whatever happened. A
// frame that carries the tag of a VLAN, or comes while the agent is switched off, is dropped.
int qel_eth_read(struct thread* thread);

// Checks one frame and dispatches its text. `link` has `fd` set, holds in the address where the
// frame came from as the socket told it (interface index and packet type), and receives the reply
// address. `frame` holds the bytes from the destination address on. Returns 0 when dispatched, -1
// when dropped: for another address or ethertype, from another interface than "vlanif1" or one that
// is not known, or out of a VLAN that "vlanif1" is not in.
int qel_eth_parse(qel_link* link, std::span<const uint8_t> frame);

// Fills the sending side of an Ethernet link: socket, index and MAC of "vlanif1". Both are looked
// up for every frame; the index may be -1, and sending then fails.
void qel_eth_link_init(qel_link* link, int fd);

// Writes `length` bytes in hexadecimal to the console, for debugging by hand; nobody calls it.
void qel_hexdump(const uint8_t* bytes, size_t length);

// Says once in the log up to how many message bytes the management interface can carry, when that
// is less than the longest message. Called at start-up.
void qel_eth_check_mtu();
