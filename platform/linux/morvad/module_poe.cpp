// SPDX-License-Identifier: Apache-2.0
//
// Module "poe": power over Ethernet of the ports that can feed it.
#include <algorithm>
#include <optional>

#include "platform/linux/morvad/modules.h"
#include "platform/linux/morvad/names.h"
#include "platform/linux/morvad/port_rows.h"

namespace morvad {
namespace {

constexpr int kPriorityMax = 255;
constexpr int kCutMax = 255;  // seconds

void port_config_get_all(Context& context, const Request&, std::string& out) {
  json rows = json::array();
  for (const Port& port : context.sw.ports()) {
    if (port.built.poe) {
      rows.push_back({{"name", port.built.name},
                      {"enable", port.poe_enabled ? 1 : 0},
                      {"supply_priority", port.poe_priority}});
    }
  }
  answer_data(out, rows);
}

Port& power_port(Port& port) {
  if (!port.built.poe) {
    throw Refused(port.built.name + ": feeds no power");
  }
  return port;
}

struct PoeRow {
  Port* port;
  std::optional<bool> enable;
  std::optional<int> priority;
};

PoeRow read_row(Port& port, const json& value) {
  PoeRow row = {&power_port(port), std::nullopt, std::nullopt};
  if (!value.is_object()) {
    row.enable = as_int(value, port.built.name, 0, 1) != 0;
    return row;
  }
  if (value.contains("enable")) {
    row.enable = bool_member(value, "enable");
  }
  if (value.contains("supply_priority")) {
    row.priority = static_cast<int>(int_member(value, "supply_priority", 0, kPriorityMax));
  }
  return row;
}

void port_config_set(Context& context, const Request& request, std::string& out) {
  std::vector<PoeRow> rows;
  SettingPairs pairs;
  for_each_named_port(context, request.payload, [&](Port& port, const json& value) {
    rows.push_back(read_row(port, value));
    const PoeRow& row = rows.back();
    if (row.enable) {
      pairs.emplace_back(switch_key("poe", port.built.name), *row.enable ? "1" : "0");
    }
    if (row.priority) {
      pairs.emplace_back(port_key("poe", port.built.name, "priority"),
                         std::to_string(*row.priority));
    }
  });
  store_or_refuse(context, pairs);
  for (const PoeRow& row : rows) {
    row.port->poe_enabled = row.enable.value_or(row.port->poe_enabled);
    row.port->poe_priority = row.priority.value_or(row.port->poe_priority);
  }
  answer(out);
  send_poe_update(context);
}

/// Cuts the power of the named ports for a moment, so that the devices behind them start anew.
void port_reboot(Context& context, const Request& request, std::string& out) {
  std::vector<std::pair<Port*, int>> cuts;
  for_each_named_port(context, request.payload, [&cuts](Port& port, const json& value) {
    const int64_t delay = value.is_null()     ? 1
                          : value.is_object() ? int_member_or(value, "delay", 0, kCutMax, 1)
                                              : as_int(value, port.built.name, 0, kCutMax);
    cuts.emplace_back(&power_port(port), static_cast<int>(delay));
  });
  for (const auto& [port, delay] : cuts) {
    port->poe_cut = true;
    Port* again = port;
    context.host.after(delay, [&sw = context.sw, &host = context.host, again] {
      again->poe_cut = false;
      Context later{sw, host};
      send_poe_update(later);
    });
  }
  answer(out);
  send_poe_update(context);
}

void alarm_info_get(Context& context, const Request&, std::string& out) {
  out = "{\"ret\":0,\"totalpower\":" + std::to_string(context.sw.poe_total()) +
        ",\"usepower\":" + std::to_string(context.sw.poe_used()) + "}";
}

/// One timer at a time, whoever asks for one and how often.
void count_down_to_poe_update(Context& context) {
  context.host.after(1, [&sw = context.sw, &host = context.host] {
    Context later{sw, host};
    if (--sw.poe_update_in == 0) {
      send_poe_update(later);
    } else {
      count_down_to_poe_update(later);
    }
  });
}

constexpr Command kCommands[] = {
    {"poe_qel_port_config_get_all", port_config_get_all},
    {"poe_qel_port_config_set", port_config_set},
    {"poe_qel_port_reboot", port_reboot},
    {"poe_qel_alarm_info_get", alarm_info_get},
};

}  // namespace

const Module kPoe = {"poe", kCommands};

void send_poe_update(Context& context) {
  json rows = json::array();
  for (const Port& port : context.sw.ports()) {
    if (port.built.poe) {
      rows.push_back({{"name", port.built.name},
                      {"power", port.poe_drawn()},
                      {"power_max", port.built.poe_limit},
                      {"poe_priority", port.poe_priority}});
    }
  }
  const int64_t total = context.sw.poe_total();
  const int64_t used = context.sw.poe_used();
  const json event = {{"type", "poe_update"},
                      {"pwroccu", total > 0 ? used * 100 / total : 0},
                      {"data", std::move(rows)}};
  if (!context.host.send_event(to_text(event))) {
    send_poe_update_soon(context);
  }
}

void send_poe_update_soon(Context& context) {
  const std::vector<Port>& ports = context.sw.ports();
  const bool feeds =
      std::any_of(ports.begin(), ports.end(), [](const Port& port) { return port.built.poe; });
  if (!feeds) {
    return;
  }
  const bool waits = context.sw.poe_update_in != 0;
  context.sw.poe_update_in = waits ? 2 : 1;
  if (!waits) {
    count_down_to_poe_update(context);
  }
}

}  // namespace morvad
