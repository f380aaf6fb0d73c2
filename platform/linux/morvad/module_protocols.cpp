// SPDX-License-Identifier: Apache-2.0
//
// Modules "mstp", "llpp", "stp" and "lldp": which ports are blocked, and the per-port switches of
// the protocols. The protocols themselves do not run in morvad; morvactl says what they found.
#include "platform/linux/morvad/modules.h"
#include "platform/linux/morvad/names.h"
#include "platform/linux/morvad/port_rows.h"

namespace morvad {
namespace {

void answer_ports(std::string& out, const std::string& names) {
  out = "{\"ret\":0,\"ports\":\"" + names + "\"}";  // port names need no escaping
}

void mstp_alarm_info_get(Context& context, const Request&, std::string& out) {
  answer_ports(out, context.sw.blocked_names(&Port::stp_blocked));
}

void llpp_config_get_all(Context& context, const Request&, std::string& out) {
  answer_ports(out, context.sw.blocked_names(&Port::loop_blocked));
}

void store_switch(Context& context, const Request& request, const RowSwitch& which) {
  store_or_refuse(context, switch_settings(parse_port_rows(context, request.payload), {which}));
}

void update_llpp(Context& context, const Request& request, std::string& out) {
  store_switch(context, request, {"llpp", &PortRow::llpp});
  answer(out);
}

void update_stp(Context& context, const Request& request, std::string& out) {
  store_switch(context, request, {"mstp", &PortRow::mstp});
  answer(out);
}

void update_lldp(Context& context, const Request& request, std::string& out) {
  store_switch(context, request, {"lldp", &PortRow::lldp});
  answer(out);
}

/// The rows of a report name every port, also those that feed no power: theirs are passed over.
void update_poe(Context& context, const Request& request, std::string& out) {
  std::vector<PortRow> rows = parse_port_rows(context, request.payload);
  std::erase_if(rows, [](const PortRow& row) { return !row.port->built.poe || !row.poe; });
  store_or_refuse(context, switch_settings(rows, {{"poe", &PortRow::poe}}));
  for (const PortRow& row : rows) {
    row.port->poe_enabled = *row.poe != 0;
  }
  answer(out);
  if (!rows.empty()) {
    send_poe_update(context);
  }
}

constexpr Command kMstpCommands[] = {{"mstp_qel_alarm_info_get", mstp_alarm_info_get}};

constexpr Command kLlppCommands[] = {{"qel_llpp_port_config_get_all", llpp_config_get_all},
                                     {"qel_common_update_llpp_portinfo", update_llpp}};

constexpr Command kStpCommands[] = {{"qel_common_update_stp_portinfo", update_stp}};

constexpr Command kLldpCommands[] = {{"qel_common_update_lldp_portinfo", update_lldp},
                                     {"qel_common_update_poe_portinfo", update_poe}};

}  // namespace

const Module kMstp = {"mstp", kMstpCommands};
const Module kLlpp = {"llpp", kLlppCommands};
const Module kStp = {"stp", kStpCommands};
const Module kLldp = {"lldp", kLldpCommands};

}  // namespace morvad
