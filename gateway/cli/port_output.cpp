// SPDX-License-Identifier: Apache-2.0
//
// How ports are shown.
#include "gateway/cli/port_output.h"

#include <fmt/format.h>

#include "gateway/text.h"

namespace qel_gateway::cli {

namespace {

const char* medium_name(int medium) {
  return medium == kMediumCopper ? "copper" : medium == kMediumFibre ? "fibre" : "other";
}

OrderedJson config_json(const PortConfig& config) {
  OrderedJson out;
  out["speed"] = config.speed;
  out["iso"] = config.iso;
  out["eee"] = config.eee;
  out["llpp"] = config.llpp;
  out["mstp"] = config.mstp;
  out["lldp"] = config.lldp;
  out["poe"] = config.poe;
  return out;
}

std::string on_off(bool on) {
  return on ? "on" : "off";
}

// The switches that are on, by name.
std::string features(const Port& port) {
  if (!port.config) {
    return {};
  }
  const std::pair<const char*, bool> values[] = {{"iso", port.config->iso},
                                                 {"eee", port.config->eee},
                                                 {"llpp", port.config->llpp},
                                                 {"mstp", port.config->mstp},
                                                 {"lldp", port.config->lldp}};
  std::string out;
  for (const auto& [name, on] : values) {
    if (on) {
      out += (out.empty() ? "" : " ") + std::string(name);
    }
  }
  return out;
}

bool has_client(const Port& port) {
  return port.client && port.client->state != "NONE";
}

Cell client_state_cell(const Port& port) {
  if (!port.client) {
    return {};
  }
  const std::string& state = port.client->state;
  return {terminal_text(state), state == "ON" ? Tint::Green : Tint::Dim};
}

std::string client_ip(const Port& port) {
  return has_client(port) && port.client->ip != "0.0.0.0" ? terminal_text(port.client->ip) : "";
}

std::string client_type(const Port& port) {
  return has_client(port) ? terminal_text(port.client->type) : "";
}

std::string poe_cell(const Port& port) {
  return port.poe ? on_off(port.poe->enable != 0) : "";
}

std::string rate(const Port& port, uint64_t PortStats::*figure) {
  return port.stats ? short_count((*port.stats).*figure) : "";
}

Cell admin_cell(const Port& port) {
  if (!port.config) {
    return {};
  }
  return {on_off(port.config->enabled), port.config->enabled ? Tint::Plain : Tint::Red};
}

}  // namespace

OrderedJson client_json(const PortClient& client) {
  const auto mac = parse_mac(client.mac);
  OrderedJson out;
  out["state"] = client.state;
  out["mac"] = mac ? mac_display(*mac) : client.mac;
  out["ip"] = client.ip;
  out["type"] = client.type;
  return out;
}

std::string client_mac(const Port& port) {
  if (!has_client(port)) {
    return {};
  }
  const auto mac = parse_mac(port.client->mac);
  return mac ? mac_display(*mac) : terminal_text(port.client->mac);
}

std::string speed_text(const Port& port) {
  if (!port.link || !port.link->up) {
    return {};
  }
  return fmt::format("{} {}", port.link->speed, port.link->full_duplex ? "full" : "half");
}

Cell link_cell(const Port& port) {
  if (!port.link) {
    return {};
  }
  if (port.link->restart_left > 0) {
    return {fmt::format("back {}s", port.link->restart_left), Tint::Yellow};
  }
  return port.link->up ? Cell("up", Tint::Green) : Cell("down", Tint::Dim);
}

OrderedJson port_json(const Port& port) {
  OrderedJson out;
  out["name"] = port.name;
  out["index"] = port.index;
  out["medium"] = medium_name(port.medium);
  out["media"] = port.media;
  if (port.position) {
    out["x"] = port.position->x;
    out["y"] = port.position->y;
  }
  if (port.link) {
    out["link"] = port.link->up;
    out["speed"] = port.link->speed;
    out["duplex"] = port.link->full_duplex ? "full" : "half";
    out["restart_left"] = port.link->restart_left;
  }
  if (port.config) {
    out["enabled"] = port.config->enabled;
    out["config"] = config_json(*port.config);
  }
  if (port.poe) {
    out["poe"] = OrderedJson{{"enable", port.poe->enable}, {"priority", port.poe->priority}};
  }
  if (port.stats) {
    out["stats"] = OrderedJson{{"tx_sum", port.stats->tx_sum},
                               {"rx_sum", port.stats->rx_sum},
                               {"tx_rate", port.stats->tx_rate},
                               {"rx_rate", port.stats->rx_rate}};
  }
  if (port.client) {
    out["client"] = client_json(*port.client);
  }
  return out;
}

OrderedJson ports_json(const PortTable& table) {
  OrderedJson out;
  out["ports"] = OrderedJson::array();
  for (const Port& port : table.ports) {
    out["ports"].push_back(port_json(port));
  }
  if (!table.missing.empty()) {
    out["missing"] = table.missing;
  }
  return out;
}

Table ports_table(const PortTable& table) {
  Table out({{"PORT"},
             {"MEDIA", Align::Left, 4},
             {"STATE", Align::Left, 1},
             {"LINK"},
             {"SPEED", Align::Right},
             {"POE", Align::Left, 2},
             {"TX/s", Align::Right, 3},
             {"RX/s", Align::Right, 3},
             {"CLIENT", Align::Left, 5},
             {"IP", Align::Left, 6},
             {"TYPE", Align::Left, 7},
             {"FEATURES", Align::Left, 8},
             {"TX BYTES", Align::Right, 10},
             {"RX BYTES", Align::Right, 10}});
  for (const Port& port : table.ports) {
    out.add({{terminal_text(port.name), Tint::Cyan},
             terminal_text(port.media),
             admin_cell(port),
             link_cell(port),
             speed_text(port),
             poe_cell(port),
             rate(port, &PortStats::tx_rate),
             rate(port, &PortStats::rx_rate),
             client_mac(port),
             client_ip(port),
             client_type(port),
             features(port),
             rate(port, &PortStats::tx_sum),
             rate(port, &PortStats::rx_sum)});
  }
  return out;
}

Table stats_table(const PortTable& table) {
  Table out({{"PORT"},
             {"TX/s", Align::Right},
             {"RX/s", Align::Right},
             {"TX BYTES", Align::Right},
             {"RX BYTES", Align::Right}});
  const auto figure = [](const Port& port, uint64_t PortStats::*member) {
    return port.stats ? fmt::format("{}", (*port.stats).*member) : "";
  };
  for (const Port& port : table.ports) {
    out.add({{terminal_text(port.name), Tint::Cyan},
             rate(port, &PortStats::tx_rate),
             rate(port, &PortStats::rx_rate),
             figure(port, &PortStats::tx_sum),
             figure(port, &PortStats::rx_sum)});
  }
  return out;
}

Table poe_table(const PortTable& table) {
  Table out({{"PORT"}, {"POE"}, {"PRIORITY", Align::Right}, {"LINK"}});
  for (const Port& port : table.ports) {
    if (!port.poe) {
      continue;
    }
    const bool on = port.poe->enable != 0;
    out.add({{terminal_text(port.name), Tint::Cyan},
             {on_off(on), on ? Tint::Green : Tint::Dim},
             fmt::format("{}", port.poe->priority),
             link_cell(port)});
  }
  return out;
}

Table clients_table(const PortTable& table) {
  Table out({{"PORT"}, {"STATE"}, {"MAC"}, {"IP"}, {"TYPE"}});
  for (const Port& port : table.ports) {
    if (has_client(port)) {
      out.add({{terminal_text(port.name), Tint::Cyan},
               client_state_cell(port),
               client_mac(port),
               client_ip(port),
               client_type(port)});
    }
  }
  return out;
}

}  // namespace qel_gateway::cli
