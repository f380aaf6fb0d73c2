// SPDX-License-Identifier: Apache-2.0
//
// What the kernel tells of a network interface: address, netmask, MAC address, index.
// Looked up anew at each use, so that an interface that was made again keeps working.
#pragma once

#include <cstddef>
#include <cstdint>

// Bytes of a dotted-decimal address, closing NUL included.
inline constexpr size_t kQelIpTextSize = 16;

// The MAC address of interface `name` into `mac`. Returns -1 when `name` is null or no socket can
// be made, else 0: also when the kernel did not answer, and `mac` is then as it was.
int qel_netif_mac_get(const char* name, uint8_t mac[6]);

// The interface index of `name`, asked on the open socket `fd`; -1 when unknown or `name` is null.
int qel_netif_index_get(int fd, const char* name);

// The IPv4 address, or netmask, of `name` as dotted decimal into `text_out` (kQelIpTextSize bytes;
// null only tests the interface). Return 0, or -1 (then `text_out` is as it was).
int qel_netif_ip_get(const char* name, char* text_out);
int qel_netif_mask_get(const char* name, char* text_out);

// The prefix length of the netmask of `name`; 0 when it has none.
int qel_netif_prefix_get(const char* name);
