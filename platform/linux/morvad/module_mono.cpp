// SPDX-License-Identifier: Apache-2.0
//
// Module "mono": port enable, speed, restart and configuration, and the product description.
#include <climits>

#include "platform/linux/morvad/modules.h"
#include "platform/linux/morvad/names.h"
#include "platform/linux/morvad/port_rows.h"

namespace morvad {
namespace {

constexpr size_t kDescriptionMax = 63;  // bytes
constexpr int kRestartMax = 255;        // seconds

void port_enable_set(Context& context, const Request& request, std::string& out) {
  Port& port = named_port(context, text_member(request.payload, "port"));
  // The gateway's value arrives unchanged: everything but 0 enables.
  const bool enable = int_member(request.payload, "enable", INT_MIN, INT_MAX) != 0;
  context.sw.set_enabled(port, enable);
  answer(out);
}

void port_speed_set(Context& context, const Request& request, std::string& out) {
  Port& port = named_port(context, text_member(request.payload, "port"));
  const int64_t code = int_member(request.payload, "speed", 0, kSpeedCodes - 1);
  context.sw.set_speed(port, static_cast<int>(code));
  answer(out);
}

/// Stores first, in one step, so that a configuration is taken whole or not at all.
void apply_rows(Context& context, const std::vector<PortRow>& rows) {
  SettingPairs pairs = switch_settings(rows, {{"iso", &PortRow::iso}, {"eee", &PortRow::eee}});
  for (const PortRow& row : rows) {
    const std::string& name = row.port->built.name;
    if (row.enable) {
      pairs.emplace_back(port_key("port", name, "enable"), std::to_string(*row.enable));
    }
    if (row.speed) {
      pairs.emplace_back(port_key("port", name, "speed"), std::to_string(*row.speed));
    }
  }
  store_or_refuse(context, pairs);
  for (const PortRow& row : rows) {
    if (row.speed) {
      context.sw.set_speed(*row.port, *row.speed, false);
    }
    if (row.enable) {
      context.sw.set_enabled(*row.port, *row.enable != 0, false);
    }
  }
}

void port_rows_set(Context& context, const Request& request, std::string& out) {
  apply_rows(context, parse_port_rows(context, request.payload));
  answer(out);
}

void port_config_get_all(Context& context, const Request&, std::string& out) {
  json rows = json::array();
  for (const Port& port : context.sw.ports()) {
    rows.push_back(
        {{"name", port.built.name}, {"enable", port.enabled ? 1 : 0}, {"speed", port.speed_conf}});
  }
  answer_data(out, rows);
}

/// Takes enabled ports down now and, after their delay, gives them the state that the settings then
/// ask for.
void port_reboot_set_all(Context& context, const Request& request, std::string& out) {
  std::vector<std::pair<Port*, int>> restarts;
  for_each_named_port(context, request.payload, [&restarts](Port& port, const json& value) {
    const int64_t delay = value.is_null()     ? 1
                          : value.is_object() ? int_member_or(value, "delay", 0, kRestartMax, 1)
                                              : as_int(value, port.built.name, 0, kRestartMax);
    restarts.emplace_back(&port, static_cast<int>(delay));
  });
  Switch& sw = context.sw;
  for (const auto& [port, delay] : restarts) {
    if (!port->enabled) {
      continue;
    }
    sw.set_enabled(*port, false, false);
    Port* again = port;
    context.host.after(delay, [&sw, again] {
      const std::string key = port_key("port", again->built.name, "enable");
      sw.set_enabled(*again, sw.settings().number(key, 1) != 0, false);
    });
  }
  answer(out);
}

void product_description_set(Context& context, const Request& request, std::string& out) {
  const std::string description = text_member(request.payload, "descr");
  if (description.size() > kDescriptionMax || !is_plain(description)) {
    throw Refused(
        "descr: expected at most 63 bytes without control characters, quotes and backslashes");
  }
  store_or_refuse(context, {{"product_description", description}});
  answer(out);
}

constexpr Command kCommands[] = {
    {"qel_port_enable_set", port_enable_set},
    {"qel_port_speed_set", port_speed_set},
    {"qel_port_config_set_all", port_rows_set},
    {"qel_port_config_get_all", port_config_get_all},
    {"qel_port_reboot_set_all", port_reboot_set_all},
    {"qel_common_update_mono_portinfo", port_rows_set},
    {"product_description_set", product_description_set},
};

}  // namespace

const Module kMono = {"mono", kCommands};

}  // namespace morvad
