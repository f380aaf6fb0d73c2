// SPDX-License-Identifier: Apache-2.0
//
// The reply address of a gateway's message. The receiving side fills one, every handler gets it and
// passes it to qel_cmd_send; the gateway table keeps copies.
#pragma once

#include <linux/if_packet.h>
#include <netinet/in.h>

#include <cstdint>

// Values of `kind`.
inline constexpr uint32_t kQelLinkNone = 0;
inline constexpr uint32_t kQelLinkUdp = 1;
inline constexpr uint32_t kQelLinkEth = 4;
inline constexpr uint32_t kQelLinkEthAlso = 5;  // accepted when sending, never produced

union qel_link_addr {
  struct sockaddr any;
  struct sockaddr_in udp;
  struct sockaddr_ll eth;
};

// Standard layout, no padding: lists keep its first bytes or all of it.
struct qel_link {
  uint32_t kind;
  uint32_t reserved;  // always 0
  int32_t fd;         // where the message came in, and the answer goes out
  qel_link_addr addr;
  uint32_t addrlen;  // 16 for UDP, 20 for Ethernet
  uint32_t flags;    // send flags, always 0
  uint8_t gw_mac[6];
  uint8_t own_mac[6];  // behind gw_mac: the two are the first 12 bytes of a reply frame
};

inline constexpr uint32_t kQelUdpAddrlen = 16;
inline constexpr uint32_t kQelEthAddrlen = 20;
static_assert(sizeof(struct sockaddr_in) == kQelUdpAddrlen);
static_assert(sizeof(struct sockaddr_ll) == kQelEthAddrlen);
static_assert(sizeof(qel_link) == 52, "copied whole into packet records of a fixed size");
