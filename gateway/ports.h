// SPDX-License-Identifier: Apache-2.0
//
// The ports of a switch, put together out of its reports. A report row bears its port's name; which
// ports there are, and in which order, the "ports_info" report says, which therefore comes first.
// The long reports come in pages, the client report one port at a time: they are complete when
// every port has been named.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gateway/discovery.h"
#include "gateway/session.h"

namespace qel_gateway {

struct PortPosition {
  int x = 0;
  int y = 0;
};

struct PortConfig {
  bool enabled = false;
  std::string speed;  // a name as the switch gives it
  bool iso = false;
  bool eee = false;
  bool llpp = false;
  bool mstp = false;
  bool lldp = false;
  bool poe = false;
};

struct PortLink {
  bool up = false;
  int speed = 0;  // Mbit/s
  bool full_duplex = false;
  int restart_left = 0;  // seconds until a restarted port comes back
};

struct PortPoe {
  int enable = 0;
  int priority = 0;
};

// Bytes, and bytes a second.
struct PortStats {
  uint64_t tx_sum = 0;
  uint64_t rx_sum = 0;
  uint64_t tx_rate = 0;
  uint64_t rx_rate = 0;
};

struct PortClient {
  std::string state;  // "ON", "OFF", "NONE"
  std::string mac;    // 12 digits or empty
  std::string ip;
  std::string type;  // "SW", "UN", ...
};

struct Port {
  std::string name;
  int index = 0;  // among the ports, from 0
  int medium = 0;
  std::string media;
  std::optional<PortPosition> position;
  std::optional<PortConfig> config;
  std::optional<PortLink> link;
  std::optional<PortPoe> poe;  // also missing where the switch feeds no power
  std::optional<PortStats> stats;
  std::optional<PortClient> client;
};

inline constexpr int kMediumCopper = 1;
inline constexpr int kMediumFibre = 2;

struct PortTable {
  std::vector<Port> ports;           // in the switch's order
  std::vector<std::string> missing;  // subjects that were asked for and not answered in full

  Port* find(std::string_view name);
  const Port* find(std::string_view name) const;
};

// Which reports are wanted besides "ports_info", as bits.
enum PortReports : unsigned {
  kPortConfig = 1,
  kPortLink = 2,
  kPortPoe = 4,
  kPortStats = 8,
  kPortClient = 16,
  kPortEverything = 31,
};

// Subjects of the requests that `reports` takes, "ports_info" first.
std::vector<std::string> port_subjects(unsigned reports);

// Asks `one` for its ports. Throws Error (no answer) when it does not say which ports it has, and
// Interrupted; reports that stay away are named in `missing`.
Task<PortTable> read_ports(Session& session, const Switch& one, unsigned reports,
                           Duration patience);

// Readers of single rows, each of one report: throw BadReply.
Port read_port_info(const std::string& name, const Json& row);
PortPosition read_port_position(const Json& row);
PortConfig read_port_config(const Json& row);
PortLink read_port_link(const Json& row);
PortPoe read_port_poe(const Json& row);
PortStats read_port_stats(const Json& row);
PortClient read_port_client(const Json& row);

}  // namespace qel_gateway
