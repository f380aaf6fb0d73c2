// SPDX-License-Identifier: Apache-2.0
//
// Readers of the rows of port reports.
#include <limits>

#include "gateway/ports.h"

namespace qel_gateway {

namespace {

constexpr int64_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int64_t kIntMax = std::numeric_limits<int32_t>::max();
constexpr size_t kNameLongest = 64;

int integer(const Json& row, size_t index) {
  return static_cast<int>(integer_at(row, index, kIntMin, kIntMax));
}

bool flag(const Json& row, size_t index) {
  return integer(row, index) != 0;
}

}  // namespace

Port read_port_info(const std::string& name, const Json& row) {
  if (name.empty() || name.size() > kNameLongest) {
    throw BadReply("a port without a usable name");
  }
  Port port;
  port.name = name;
  port.index = static_cast<int>(integer_at(row, 0, 0, kIntMax));
  port.medium = integer(row, 1);
  port.media = text_at(row, 2, kNameLongest);
  return port;
}

PortPosition read_port_position(const Json& row) {
  return {integer(row, 0), integer(row, 1)};
}

PortConfig read_port_config(const Json& row) {
  PortConfig config;
  config.enabled = flag(row, 0);
  config.speed = text_at(row, 1, kNameLongest);
  config.iso = flag(row, 2);
  config.eee = flag(row, 3);
  config.llpp = flag(row, 4);
  config.mstp = flag(row, 5);
  config.lldp = flag(row, 6);
  config.poe = flag(row, 7);
  return config;
}

PortLink read_port_link(const Json& row) {
  PortLink link;
  link.up = flag(row, 0);
  link.speed = integer(row, 1);
  link.full_duplex = flag(row, 2);
  link.restart_left = static_cast<int>(integer_at(row, 3, 0, 255));
  return link;
}

PortPoe read_port_poe(const Json& row) {
  return {integer(row, 0), integer(row, 1)};
}

PortStats read_port_stats(const Json& row) {
  return {unsigned_at(row, 0), unsigned_at(row, 1), unsigned_at(row, 2), unsigned_at(row, 3)};
}

PortClient read_port_client(const Json& row) {
  PortClient client;
  client.state = text_member(row, "client_state", kNameLongest);
  client.mac = text_member(row, "client_mac", kNameLongest);
  client.ip = text_member(row, "client_ip", kNameLongest);
  client.type = text_member(row, "client_type", kNameLongest);
  return client;
}

}  // namespace qel_gateway
