// SPDX-License-Identifier: Apache-2.0
//
// How a switch's identity is shown.
#include "gateway/cli/identity_output.h"

#include <map>

#include <fmt/format.h>

#include "gateway/text.h"

namespace qel_gateway::cli {

OrderedJson identity_json(const Switch& one) {
  const Identity& id = one.identity;
  OrderedJson out;
  out["mac"] = mac_display(one.mac);
  out["name"] = id.name;
  out["ip"] = id.ip;
  out["prefix"] = id.prefix;
  out["model"] = id.model;
  out["type"] = id.type;
  out["hw_version"] = id.hw_version;
  out["sw_version"] = id.sw_version;
  out["uptime"] = id.uptime;
  out["cpu"] = id.cpu;
  out["mem"] = id.mem;
  out["active"] = id.active;
  out["sys_active"] = id.sys_active;
  return out;
}

std::vector<std::string> labels_of(const std::vector<Switch>& switches) {
  std::map<std::string_view, size_t> bearers;
  for (const Switch& one : switches) {
    ++bearers[one.identity.name];
  }
  std::vector<std::string> labels;
  for (const Switch& one : switches) {
    std::string label = terminal_text(one.identity.name);
    if (label.empty()) {
      label = mac_display(one.mac);
    } else if (bearers[one.identity.name] > 1) {
      constexpr size_t kVendor = 9;  // "0a:1b:2c:", which all of a maker's switches have alike
      label += " " + mac_display(one.mac).substr(kVendor);
    }
    labels.push_back(std::move(label));
  }
  return labels;
}

Table identity_table(const std::vector<Switch>& switches) {
  Table table({{"MAC"},
               {"NAME", Align::Left, 0, 12},
               {"ADDRESS"},
               {"MODEL", Align::Left, 1, 8},
               {"SOFTWARE", Align::Left, 2, 8},
               {"HARDWARE", Align::Left, 5, 8},
               {"UPTIME", Align::Right, 3},
               {"CPU", Align::Right, 4},
               {"MEM", Align::Right, 4},
               {"ACTIVE", Align::Right, 6}});
  for (const Switch& one : switches) {
    const Identity& id = one.identity;
    table.add({{mac_display(one.mac), Tint::Cyan},
               terminal_text(id.name),
               id.ip.empty() ? "none" : fmt::format("{}/{}", terminal_text(id.ip), id.prefix),
               terminal_text(id.model),
               terminal_text(id.sw_version),
               terminal_text(id.hw_version),
               short_duration(id.uptime),
               fmt::format("{}%", id.cpu),
               fmt::format("{}%", id.mem),
               fmt::format("{}", id.sys_active)});
  }
  return table;
}

void print_message(const Context& context, const std::string& text, const std::string& receiver) {
  if (context.options().json) {
    OrderedJson out;
    out["to"] = receiver;
    out["message"] = text;
    context.print_json(out);
  } else {
    context.print(fmt::format("to {}: {}\n", receiver, text));
  }
}

}  // namespace qel_gateway::cli
