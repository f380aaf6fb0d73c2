// SPDX-License-Identifier: Apache-2.0
//
// Modules "ifmgr" and "hal", which only the library in the agent asks: the interface table at its
// start, and the calls of the hardware layer.
#include <charconv>

#include "platform/linux/morvad/log.h"
#include "platform/linux/morvad/modules.h"
#include "platform/linux/morvad/names.h"

namespace morvad {
namespace {

/// A batch of this many entries stays below the 65,534 bytes of an answer.
constexpr int kBatchMax = 500;

/// The table that holds the learnt addresses.
constexpr int kLearntTable = 3;

void if_table_get(Context& context, const Request&, std::string& out) {
  json rows = json::array();
  for (const Port& port : context.sw.ports()) {
    rows.push_back(interface_row(port));
  }
  rows.push_back(management_row());
  out = to_text({{"ret", 0}, {"port_max", context.sw.ports().size()}, {"data", std::move(rows)}});
}

void hal_init(Context& context, const Request& request, std::string& out) {
  context.host.attach(request.pid);
  context.sw.agent_started();
  send_poe_update_soon(context);
  answer(out);
}

void qel_enable(Context& context, const Request& request, std::string& out) {
  const std::string refusal = context.sw.frames_to_cpu_set(bool_member(request.payload, "enable"));
  if (!refusal.empty()) {
    log_line("the gateway's frames: " + refusal);
    throw Refused(refusal);
  }
  answer(out);
}

void append_number(std::string& out, uint32_t value) {
  char digits[10];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.append(digits, static_cast<size_t>(end - digits));
}

void mac_get(Context& context, const Request& request, std::string& out) {
  const int64_t start = int_member(request.payload, "start", 0, UINT32_MAX);
  const int64_t batch = int_member(request.payload, "batch", 0, kBatchMax);
  int_member(request.payload, "select", kLearntTable, kLearntTable);
  // One reading of the table serves all batches, so that no entry is missed or told twice.
  const std::string refusal = start == 0 ? context.sw.refresh_l2() : "";
  if (!refusal.empty()) {
    log_line("layer-2 table: " + refusal);
    throw Refused(refusal);
  }
  out = "{\"ret\":0,\"data\":[";
  bool first = true;
  for (const L2Entry& entry :
       context.sw.l2().read(static_cast<size_t>(start), static_cast<size_t>(batch))) {
    out += first ? "{\"port\":" : ",{\"port\":";
    first = false;
    append_number(out, entry.port);
    out += ",\"type\":";
    append_number(out, entry.type);
    out += ",\"aging_time\":";
    append_number(out, entry.aging_time);
    out += ",\"vid\":";
    append_number(out, entry.vid);
    out += ",\"mac\":\"";
    append_mac(out, entry.mac);
    out += "\"}";
  }
  out += "]}";
}

constexpr Command kIfmgrCommands[] = {{"if_table_get", if_table_get}};

constexpr Command kHalCommands[] = {
    {"mac_get", mac_get}, {"qel_enable", qel_enable}, {"init", hal_init}};

}  // namespace

const Module kIfmgr = {"ifmgr", kIfmgrCommands};
const Module kHal = {"hal", kHalCommands, true};

json interface_row(const Port& port) {
  const PortStatus status = port.status();
  return {{"index", port.index},
          {"name", port.built.name},
          {"port_no", port.built.number},
          {"speed_class", port.built.speed_class},
          {"medium", port.built.medium},
          {"max_speed", port.built.max_speed},
          {"speed", status.speed},
          {"duplex", status.duplex},
          {"speed_conf", status.speed_conf},
          {"pos_x", port.built.pos_x},
          {"pos_y", port.built.pos_y},
          {"aux_index", port.built.aux_index},
          {"mirror", port.mirror},
          {"limit", port.limit},
          {"link", status.link},
          {"enable", status.enable}};
}

json management_row() {
  return {{"index", kManagementIndex},
          {"name", "vlanif1"},
          {"port_no", 0},
          {"speed_class", 0},
          {"medium", 0},
          {"max_speed", 0},
          {"speed", 0},
          {"duplex", 0},
          {"speed_conf", 0},
          {"pos_x", 0},
          {"pos_y", 0},
          {"aux_index", -1},
          {"mirror", 0},
          {"limit", 0},
          {"link", 1},
          {"enable", 1}};
}

}  // namespace morvad
