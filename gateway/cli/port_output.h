// SPDX-License-Identifier: Apache-2.0
//
// Ports on paper: the JSON of one, and the tables of ports, stats, poe and clients.
#pragma once

#include <string>

#include "gateway/cli/context.h"
#include "gateway/ports.h"

namespace qel_gateway::cli {

// All that is known of a port; what was not reported is left out.
OrderedJson port_json(const Port& port);

// {"ports":[...],"missing":[...]}; "missing" only when something is.
OrderedJson ports_json(const PortTable& table);

Table ports_table(const PortTable& table);
Table stats_table(const PortTable& table);
Table poe_table(const PortTable& table);
Table clients_table(const PortTable& table);

// {"state","mac","ip","type"}, the MAC with colons.
OrderedJson client_json(const PortClient& client);

// One cell: "up", "down", "off" or the seconds until a restarted port is back.
Cell link_cell(const Port& port);
// "1000 full", empty without link.
std::string speed_text(const Port& port);
// The client's MAC with colons; empty when there is none.
std::string client_mac(const Port& port);

}  // namespace qel_gateway::cli
