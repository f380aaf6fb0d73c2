// SPDX-License-Identifier: Apache-2.0
//
// The port configuration that the gateway sends to several modules at once: an object keyed by port
// name, each value in the order and meaning of a "ports_conf" report row,
//
//     {"ge1":[enable,speed,iso,eee,llpp,mstp,lldp,poe], ...}
//
// or an object with those members. A row may end early; a member may be missing: what is not there
// stays as it is. Each module takes its own members out of the rows.
#ifndef MORVA_LINUX_MORVAD_PORT_ROWS_H
#define MORVA_LINUX_MORVAD_PORT_ROWS_H

#include <optional>
#include <string_view>
#include <vector>

#include "platform/linux/morvad/modules.h"

namespace morvad {

struct PortRow {
  Port* port = nullptr;
  std::optional<int> enable;
  std::optional<int> speed;  // code
  std::optional<int> iso;
  std::optional<int> eee;
  std::optional<int> llpp;
  std::optional<int> mstp;
  std::optional<int> lldp;
  std::optional<int> poe;
};

/// Reads the rows; also takes an array of objects with "name". Throws Refused, and so takes nothing
/// at all, when a port is unknown or a value is of the wrong kind.
std::vector<PortRow> parse_port_rows(Context& context, const json& payload);

/// Calls `row(port, value)` for each port that the payload names: {"ge1":value}, [{"name":"ge1",
/// ...}] (the value is then the object) or ["ge1"] (the value is then null). Throws Refused for an
/// unknown port.
template <typename Row>
void for_each_named_port(Context& context, const json& payload, Row row) {
  if (payload.is_object()) {
    for (const auto& item : payload.items()) {
      row(named_port(context, item.key()), item.value());
    }
    return;
  }
  if (!payload.is_array()) {
    throw Refused("expected an object keyed by port name, or an array");
  }
  for (const json& element : payload) {
    if (element.is_string()) {
      row(named_port(context, element.get<std::string>()), json());
    } else {
      row(named_port(context, text_member(element, "name")), element);
    }
  }
}

/// A switch of the rows and the settings key that keeps it: {"iso", &PortRow::iso}.
struct RowSwitch {
  std::string_view name;
  std::optional<int> PortRow::*member;
};

/// The settings that these switches of these rows become.
SettingPairs switch_settings(const std::vector<PortRow>& rows,
                             std::initializer_list<RowSwitch> switches);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_PORT_ROWS_H
