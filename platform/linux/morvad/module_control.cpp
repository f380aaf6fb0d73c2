// SPDX-License-Identifier: Apache-2.0
//
// Module "morvad": the hand on the switch. morvactl plugs cables, sets counters and figures, and
// looks at everything through these commands.
#include <climits>

#include "platform/linux/morvad/modules.h"
#include "platform/linux/morvad/names.h"
#include "platform/linux/morvad/port_rows.h"

namespace morvad {
namespace {

constexpr int kListMax = 2000;  // layer-2 entries in one answer
constexpr int kPowerMax = 100000000;

Port& port_member(Context& context, const Request& request) {
  return named_port(context, text_member(request.payload, "port"));
}

/// A port whose cable, figures and addresses are morvactl's to move.
Port& memory_port(Context& context, const Request& request) {
  Port& port = port_member(context, request);
  if (port.binding->driven()) {
    throw Refused(port.built.name + " is the interface " + port.built.interface +
                  ": what it does is the kernel's to say");
  }
  return port;
}

void link_set(Context& context, const Request& request, std::string& out) {
  Port& port = memory_port(context, request);
  context.sw.set_cable(port, bool_member(request.payload, "up"));
  answer_data(out, {{"link", port.status().link}, {"enable", port.status().enable}});
}

void speed_set(Context& context, const Request& request, std::string& out) {
  Port& port = memory_port(context, request);
  const int64_t asked = int_member(request.payload, "speed", INT64_MIN, INT64_MAX);
  if (!is_speed(asked)) {
    throw Refused("speed: expected one of " + speed_list() + " (Mbit/s)");
  }
  const auto speed = static_cast<int>(asked);
  if (speed > port.built.max_speed) {
    throw Refused(port.built.name + " can do at most " + std::to_string(port.built.max_speed) +
                  " Mbit/s");
  }
  context.sw.set_far_end(port, speed, bool_member_or(request.payload, "full", true));
  answer_data(out, {{"speed", port.status().speed}, {"duplex", port.status().duplex}});
}

uint64_t figure(const json& payload, const char* key, uint64_t fallback) {
  const auto found = payload.find(key);
  if (found == payload.end()) {
    return fallback;
  }
  if (!found->is_number_unsigned()) {
    throw Refused(std::string(key) + ": expected a whole number that is not negative");
  }
  return found->get<uint64_t>();
}

/// What is not named stays as it is now; the rates of counters that stand still count as 0.
void counters_set(Context& context, const Request& request, std::string& out) {
  Port& port = memory_port(context, request);
  const json& payload = request.payload;
  const bool run = bool_member_or(payload, "run", false);
  Counters now = port.counters(context.host.now_ns());
  now.tx_bytes = figure(payload, "tx_bytes", now.tx_bytes);
  now.rx_bytes = figure(payload, "rx_bytes", now.rx_bytes);
  now.fcs_errors = figure(payload, "fcs_errors", now.fcs_errors);
  now.pause_frames = figure(payload, "pause_frames", now.pause_frames);
  now.tx_rate = figure(payload, "tx_rate", run ? port.built.tx_rate : 0);
  now.rx_rate = figure(payload, "rx_rate", run ? port.built.rx_rate : 0);
  context.sw.set_counters(port, now, run);
  answer(out);
}

void poe_set(Context& context, const Request& request, std::string& out) {
  Port& port = port_member(context, request);
  if (!port.built.poe) {
    throw Refused(port.built.name + " feeds no power");
  }
  const json& payload = request.payload;
  const int power = static_cast<int>(int_member_or(payload, "power", 0, kPowerMax, port.poe_power));
  const int limit =
      static_cast<int>(int_member_or(payload, "limit", 0, kPowerMax, port.built.poe_limit));
  const bool enable = bool_member_or(payload, "enable", port.poe_enabled);
  const int priority =
      static_cast<int>(int_member_or(payload, "priority", 0, 255, port.poe_priority));
  store_or_refuse(context,
                  {{switch_key("poe", port.built.name), enable ? "1" : "0"},
                   {port_key("poe", port.built.name, "priority"), std::to_string(priority)}});
  port.poe_power = power;
  port.built.poe_limit = limit;
  port.poe_enabled = enable;
  port.poe_priority = priority;
  answer_data(out, {{"power", port.poe_drawn()}});
  send_poe_update(context);
}

void poe_budget_set(Context& context, const Request& request, std::string& out) {
  const json& payload = request.payload;
  const int64_t total = int_member(payload, "total", 0, kPowerMax);
  const int64_t used = int_member_or(payload, "used", 0, kPowerMax, -1);
  context.sw.poe_total_set(static_cast<int>(total));
  context.sw.poe_use_set(static_cast<int>(used));
  answer(out);
  send_poe_update(context);
}

std::array<uint8_t, 6> mac_member(const json& payload) {
  std::array<uint8_t, 6> mac{};
  if (!parse_mac(text_member(payload, "mac"), mac)) {
    throw Refused("mac: expected an address as \"0a:1b:2c:3d:4e:5f\"");
  }
  return mac;
}

void l2_add(Context& context, const Request& request, std::string& out) {
  const json& payload = request.payload;
  L2Entry entry;
  entry.port = port_member(context, request).index;
  entry.mac = mac_member(payload);
  entry.vid = static_cast<uint16_t>(int_member_or(payload, "vid", 1, 4094, 1));
  entry.type = static_cast<uint32_t>(int_member_or(payload, "type", 0, UINT32_MAX, 2));
  entry.aging_time = static_cast<uint32_t>(int_member_or(payload, "aging", 0, UINT32_MAX, 300));
  if (!context.sw.l2().add(entry)) {
    throw Refused("the layer-2 table is full");
  }
  answer(out);
}

void l2_del(Context& context, const Request& request, std::string& out) {
  const auto vid = static_cast<uint16_t>(int_member_or(request.payload, "vid", 1, 4094, 1));
  if (!context.sw.l2().remove(mac_member(request.payload), vid)) {
    throw Refused("no such address in VLAN " + std::to_string(vid));
  }
  answer(out);
}

void l2_clear(Context& context, const Request&, std::string& out) {
  context.sw.l2().clear();
  answer(out);
}

void l2_fill(Context& context, const Request& request, std::string& out) {
  const int64_t count = int_member(request.payload, "count", 0, kL2TableSize);
  std::vector<uint32_t> ports;
  for (const Port& port : context.sw.ports()) {
    ports.push_back(port.index);
  }
  context.sw.l2().fill(static_cast<size_t>(count), ports);
  answer(out);
}

void l2_list(Context& context, const Request& request, std::string& out) {
  const int64_t start = int_member_or(request.payload, "start", 0, UINT32_MAX, 0);
  const std::string refusal = start == 0 ? context.sw.refresh_l2() : "";
  if (!refusal.empty()) {
    throw Refused(refusal);
  }
  json rows = json::array();
  for (const L2Entry& entry : context.sw.l2().read(static_cast<size_t>(start), kListMax)) {
    std::string mac;
    append_mac(mac, entry.mac);
    const Port* port = context.sw.find_index(entry.port);
    rows.push_back({{"port", port != nullptr ? port->built.name : ""},
                    {"mac", mac},
                    {"vid", entry.vid},
                    {"type", entry.type},
                    {"aging", entry.aging_time}});
  }
  answer_data(out, rows);
}

void oem_set(Context& context, const Request& request, std::string& out) {
  const int64_t word = int_member(request.payload, "word", 0, OEM_INFO_WORDS - 1);
  const int64_t value = int_member(request.payload, "value", 0, UINT32_MAX);
  if (context.sw.oem_set(static_cast<size_t>(word), static_cast<uint32_t>(value)) != 0) {
    throw Refused("settings not stored");
  }
  answer(out);
}

/// The named ports are blocked, all others are not. "by" says who blocks: "stp" or "loop".
void blocked_set(Context& context, const Request& request, std::string& out) {
  const std::string by = text_member(request.payload, "by");
  if (by != "stp" && by != "loop") {
    throw Refused("by: expected \"stp\" or \"loop\"");
  }
  const auto ports = request.payload.find("ports");
  if (ports == request.payload.end() || !ports->is_array()) {
    throw Refused("ports: expected an array of port names");
  }
  std::vector<Port*> blocked;
  for_each_named_port(context, *ports,
                      [&blocked](Port& port, const json&) { blocked.push_back(&port); });
  bool Port::*mark = by == "stp" ? &Port::stp_blocked : &Port::loop_blocked;
  const auto kernels = [&by](const Port& port) { return by == "stp" && port.binding->driven(); };
  for (Port* port : blocked) {
    if (kernels(*port)) {
      throw Refused(port->built.name + ": the bridge says whether spanning tree blocks it");
    }
  }
  for (Port& port : context.sw.ports()) {
    port.*mark = kernels(port) && port.*mark;
  }
  for (Port* port : blocked) {
    port->*mark = true;
  }
  answer(out);
}

void trunk_set(Context& context, const Request& request, std::string& out) {
  Port& port = port_member(context, request);
  context.sw.set_trunk(port, static_cast<int>(int_member(request.payload, "trunk", 0, 255)));
  answer(out);
}

void mirror_set(Context& context, const Request& request, std::string& out) {
  Port& port = port_member(context, request);
  context.sw.set_mirror(port, bool_member(request.payload, "mirror") ? 1 : 0);
  answer(out);
}

void fw_set(Context& context, const Request& request, std::string& out) {
  const int64_t state = int_member(request.payload, "state", INT_MIN, kFirmwareWrite);
  const int64_t detail = int_member_or(request.payload, "detail", INT_MIN, INT_MAX, 0);
  context.sw.firmware().set(static_cast<int>(state), static_cast<int>(detail),
                            context.host.now_ns());
  answer(out);
}

json firmware_json(Context& context) {
  const uint64_t now = context.host.now_ns();
  Firmware& firmware = context.sw.firmware();
  return {{"state", firmware.state(now)}, {"detail", firmware.detail(now)}};
}

void fw_show(Context& context, const Request&, std::string& out) {
  answer_data(out, firmware_json(context));
}

json port_json(const Port& port, uint64_t now_ns) {
  const Counters counters = port.counters(now_ns);
  json row = interface_row(port);
  row["cable"] = (port.binding->driven() ? row["link"] != 0 : port.cable) ? 1 : 0;
  row["speed_name"] = speed_code_name(port.speed_conf);
  row["trunk"] = port.trunk;
  row["stp_blocked"] = port.stp_blocked ? 1 : 0;
  row["loop_blocked"] = port.loop_blocked ? 1 : 0;
  row["interface"] = port.built.interface.empty() ? json() : json(port.built.interface);
  row["counters"] = {{"tx_bytes", counters.tx_bytes},     {"rx_bytes", counters.rx_bytes},
                     {"tx_rate", counters.tx_rate},       {"rx_rate", counters.rx_rate},
                     {"fcs_errors", counters.fcs_errors}, {"pause_frames", counters.pause_frames}};
  if (port.built.poe) {
    row["poe"] = {{"enable", port.poe_enabled ? 1 : 0},
                  {"priority", port.poe_priority},
                  {"power", port.poe_drawn()},
                  {"limit", port.built.poe_limit}};
  }
  return row;
}

void show(Context& context, const Request&, std::string& out) {
  Switch& sw = context.sw;
  json ports = json::array();
  for (const Port& port : sw.ports()) {
    ports.push_back(port_json(port, context.host.now_ns()));
  }
  json oem = json::array();
  for (size_t i = 0; i < OEM_INFO_WORDS; i++) {
    oem.push_back(sw.oem_get(i));
  }
  std::string mac;
  append_mac(mac, sw.board().mac);
  Address address;
  const bool has_address = context.host.address_get(sw.board().management.interface, address);
  answer_data(out,
              {{"board", sw.board().name},
               {"mac", mac},
               {"address", has_address ? address.ip + "/" + std::to_string(address.prefix) : ""},
               {"oem", std::move(oem)},
               {"poe", {{"total", sw.poe_total()}, {"used", sw.poe_used()}}},
               {"firmware", firmware_json(context)},
               {"l2_entries", sw.l2().size()},
               {"frames_to_cpu", sw.frames_to_cpu() ? 1 : 0},
               {"ports", std::move(ports)}});
}

void restart(Context& context, const Request&, std::string& out) {
  context.host.restart(false);
  answer(out);
}

constexpr Command kCommands[] = {
    {"show", show},
    {"link_set", link_set},
    {"speed_set", speed_set},
    {"counters_set", counters_set},
    {"poe_set", poe_set},
    {"poe_budget_set", poe_budget_set},
    {"l2_add", l2_add},
    {"l2_del", l2_del},
    {"l2_clear", l2_clear},
    {"l2_fill", l2_fill},
    {"l2_list", l2_list},
    {"oem_set", oem_set},
    {"blocked_set", blocked_set},
    {"trunk_set", trunk_set},
    {"mirror_set", mirror_set},
    {"fw_show", fw_show},
    {"fw_set", fw_set},
    {"restart", restart},
};

}  // namespace

const Module kControl = {"morvad", kCommands};

}  // namespace morvad
