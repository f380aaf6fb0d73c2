// SPDX-License-Identifier: Apache-2.0
//
// The machine's network interfaces. Used by the transports and by qelctl's choice of a wire.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gateway/mac.h"

namespace qel_gateway {

// Names of all interfaces, sorted.
std::vector<std::string> interface_names();

// The one interface that can be meant when none was named: the only one that is up, loopback
// aside. Throws Error (usage) naming the candidates when there is none or more than one.
std::string only_interface();

// MAC of the interface that has this IPv4 address (host byte order), if any has.
std::optional<MacAddress> mac_of_address(uint32_t ip);

}  // namespace qel_gateway
