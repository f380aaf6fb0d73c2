// SPDX-License-Identifier: Apache-2.0
//
// See port_rows.h.
#include "platform/linux/morvad/port_rows.h"

#include "platform/linux/morvad/names.h"

namespace morvad {
namespace {

struct Field {
  const char* name;
  std::optional<int> PortRow::*member;
};

/// In the order of a row.
constexpr Field kFields[] = {
    {"enable", &PortRow::enable}, {"speed", &PortRow::speed}, {"iso", &PortRow::iso},
    {"eee", &PortRow::eee},       {"llpp", &PortRow::llpp},   {"mstp", &PortRow::mstp},
    {"lldp", &PortRow::lldp},     {"poe", &PortRow::poe},
};

int read_field(const Field& field, const std::string& port, const json& value) {
  const std::string what = port + "." + field.name;
  if (field.member != &PortRow::speed) {
    return static_cast<int>(as_int(value, what, 0, 1));
  }
  if (!value.is_string()) {
    return static_cast<int>(as_int(value, what, 0, kSpeedCodes - 1));
  }
  const int code = speed_code_of_name(value.get_ref<const std::string&>());
  if (code < 0) {
    throw Refused(what + ": " + in_quotes(value.get_ref<const std::string&>()) +
                  " is no name of a speed");
  }
  return code;
}

PortRow read_row(Port& port, const json& value) {
  PortRow row;
  row.port = &port;
  if (!value.is_object() && (!value.is_array() || value.size() > std::size(kFields))) {
    throw Refused(port.built.name + ": expected an object, or an array of at most 8 values");
  }
  for (size_t i = 0; i < std::size(kFields); i++) {
    const Field& field = kFields[i];
    if (value.is_array() && i < value.size()) {
      row.*field.member = read_field(field, port.built.name, value[i]);
    } else if (value.is_object() && value.contains(field.name)) {
      row.*field.member = read_field(field, port.built.name, value[field.name]);
    }
  }
  return row;
}

}  // namespace

std::vector<PortRow> parse_port_rows(Context& context, const json& payload) {
  std::vector<PortRow> rows;
  for_each_named_port(context, payload, [&rows](Port& port, const json& value) {
    rows.push_back(read_row(port, value));
  });
  return rows;
}

SettingPairs switch_settings(const std::vector<PortRow>& rows,
                             std::initializer_list<RowSwitch> switches) {
  SettingPairs pairs;
  for (const PortRow& row : rows) {
    for (const RowSwitch& entry : switches) {
      const std::optional<int>& value = row.*entry.member;
      if (value) {
        pairs.emplace_back(switch_key(entry.name, row.port->built.name), std::to_string(*value));
      }
    }
  }
  return pairs;
}

}  // namespace morvad
