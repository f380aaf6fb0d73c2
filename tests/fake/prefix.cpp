// SPDX-License-Identifier: Apache-2.0
//
// Address arithmetic, as its header says.
#include "platform/prefix.h"

#include <arpa/inet.h>

#include <bit>

extern "C" int ip_masklen(struct in_addr netmask) {
  return std::countl_one(static_cast<uint32_t>(ntohl(netmask.s_addr)));
}
