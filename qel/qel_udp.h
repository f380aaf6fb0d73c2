// SPDX-License-Identifier: Apache-2.0
//
// The UDP link: the same messages as over raw Ethernet, as plain datagrams. It stays closed unless
// the setting "qel_udp_enable" opens it, since whoever reaches the port commands the switch.
#pragma once

#include <cstdint>

#include "platform/loop.h"
#include "qel/qel_link.h"

// Opens the UDP link when nvram "qel_udp_enable" is not 0. Called by qel_dev_init.
void qel_udp_init();

// Opens the socket on the switch's UDP port and registers qel_udp_read. Returns 0, or -1 (told by
// perror); the link then stays closed.
int qel_udp_open();

// Read callback ("qel_udp_read"): receives one datagram, registers itself again whatever happened.
// A datagram that comes while the agent is switched off is dropped.
int qel_udp_read(struct thread* thread);

// Fills a link for sending to a gateway at IPv4 address `ip` (host byte order) on the gateway's UDP
// port. Nobody in the agent calls it.
void qel_udp_link_init(qel_link* link, uint32_t ip);
