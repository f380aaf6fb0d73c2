// SPDX-License-Identifier: Apache-2.0
//
// Just enough of SNMPv2c to ask for table columns in bulk, as a management station does: the peer
// that the agent's port reports are compared with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// The bulk request for the columns ifOperStatus, ifHCInOctets and ifHCOutOctets: the `rows` rows
// behind interface index `after`. `id` has its upper bit clear.
std::string snmp_bulk_request(uint32_t id, uint32_t after, uint32_t rows);

// True when `reply` is the answer to that request and tells no error.
bool snmp_is_answer(const std::string& reply, uint32_t id);

}  // namespace bench
