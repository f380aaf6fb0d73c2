// SPDX-License-Identifier: Apache-2.0
//
// Address arithmetic of platform/prefix.h.
#include "platform/prefix.h"

#include <arpa/inet.h>

#include <bit>

int ip_masklen(in_addr netmask) {
  return std::countl_one(ntohl(netmask.s_addr));
}
