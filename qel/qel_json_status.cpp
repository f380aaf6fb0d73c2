// SPDX-License-Identifier: Apache-2.0
//
// The key/value description of the switch: what a join or update message tells the gateway.
#include <array>

#include "qel/qel_client.h"
#include "qel/qel_devinfo.h"
#include "qel/qel_json.h"
#include "qel/qel_table.h"

namespace {

constexpr char kSource[] = "qel/qel_json";
constexpr int kPortsPerPage = 4;
constexpr int32_t kMilliwattsPerWatt = 1000;
constexpr int32_t kMilliwattsPerTenth = 100;

// Indexed by the codes of qel_mono_speed_code and qel_mono_port_role.
constexpr std::array kLinkSpeedNames = {"disconnect", "10M", "100M", "1G", "10G"};
constexpr std::array kRoleNames = {"none", "block", "poe", "mirror", "uplink", "disable"};
enum role { kRoleNone, kRoleBlock, kRolePoe, kRoleMirror, kRoleUplink, kRoleDisable };

qel_text& payload_area() {
  static qel_text_area<kQelMessageSize> area;
  return area.begin();
}

// What a payload holds of its own: a report or the status of ports.
qel_text& inner_area() {
  static qel_text_area<kQelMessageSize> area;
  return area.begin();
}

void put_info_table(qel_text& out) {
  out.put('[');
  bool first = true;
  for (const qel_info_entry& entry : g_qel_info) {
    out.printf("%s{\"key\":\"%s\",\"value\":\"%s\"}", first ? "" : ",", entry.key, entry.value);
    first = false;
  }
  out.put(']');
}

const char* link_speed_name(const struct uif* uif, bool up) {
  int code = 0;
  if (up) {
    qel_mono_speed_code(uif->speed, &code);
  }
  return kLinkSpeedNames[static_cast<size_t>(code)];
}

const char* role_name(const struct uif* uif) {
  int code = 0;
  qel_mono_port_role(uif, &code);
  return kRoleNames[static_cast<size_t>(code)];
}

void put_port_entries(qel_text& out, const struct uif* uif, const qel_port* port) {
  const int n = uif->port_no;
  const bool up = uif_is_linkup(uif) != 0;
  const auto power = static_cast<int32_t>(port->power);
  if (up && port->neighbour_type != kQelClientSwitch) {
    ++g_qel_dev.online_ports;
  }
  out.printf("{\"key\":\"port.name.%d\",\"value\":\"%s\"}", n, uif->name);
  out.printf(",{\"key\":\"port.descname.%d\",\"value\":\"%s\"}", n, port->descname);
  out.printf(",{\"key\":\"port.link.%d\",\"value\":\"%d\"}", n, up ? 1 : 0);
  out.printf(",{\"key\":\"port.enable.%d\",\"value\":\"%d\"}", n, uif_is_enable(uif) != 0 ? 1 : 0);
  out.printf(",{\"key\":\"port.speed.%d\",\"value\":\"%d\"}", n, uif->speed);
  out.printf(",{\"key\":\"port.duplex.%d\",\"value\":\"%d\"}", n, uif->duplex);
  out.printf(",{\"key\":\"port.speed_cfg.%d\",\"value\":\"%s\"}", n,
             qel_json_speed_cfg_name(uif->speed_conf));
  out.printf(",{\"key\":\"port.power.%d\",\"value\":\"%d.%d\"}", n, power / kMilliwattsPerWatt,
             power % kMilliwattsPerWatt / kMilliwattsPerTenth);
  out.printf(",{\"key\":\"port.priority.%d\",\"value\":\"%d\"}", n, port->poe_priority);
  out.printf(",{\"key\":\"port.powermax.%d\",\"value\":\"%d\"}", n,
             static_cast<int32_t>(port->power_max));
  out.printf(",{\"key\":\"port.limit.%d\",\"value\":\"%d\"}", n, uif->limit);
  out.printf(",{\"key\":\"port.statem.%d\",\"value\":\"%s\"}", n, link_speed_name(uif, up));
  out.printf(",{\"key\":\"port.statel.%d\",\"value\":\"%s\"}", n, role_name(uif));
}

// Opens a payload of the device: {"devtype":"switch"
void put_devtype(qel_text& out) {
  out.put("{\"devtype\":\"switch\"");
}

void put_status(qel_text& out, const qel_text& status) {
  out.put(",\"status\":[");
  out.put(status.view());
  out.put(']');
}

size_t wrap(qel_text& out, const char* type, size_t (*payload)(qel_text&), const cJSON* request) {
  qel_text& text = payload_area();
  payload(text);
  return qel_json_pkt_req(out, type, text.c_str(), request);
}

}  // namespace

int qel_mono_speed_code(int32_t speed, int* out_code) {
  struct speed_row {
    int32_t speed;
    int code;
  };
  static constexpr std::array kCodes = {speed_row{10, 1}, speed_row{100, 2}, speed_row{1000, 3},
                                        speed_row{10000, 4}};
  *out_code = 0;
  for (const speed_row& row : kCodes) {
    if (row.speed == speed) {
      *out_code = row.code;
    }
  }
  return 0;
}

int qel_mono_port_role(const struct uif* uif, int* out_role) {
  const qel_port* port = qel_port_of(uif);
  if ((uif->flags & UIF_FLAG_DISABLED) != 0) {
    *out_role = kRoleDisable;  // whatever else holds
  } else if (port != nullptr && port->blocked != 0) {
    *out_role = kRoleBlock;
  } else if (port != nullptr && port->neighbour_type == kQelClientSwitch) {
    *out_role = kRoleUplink;
  } else if (port != nullptr && static_cast<int32_t>(port->power) > 0) {
    *out_role = kRolePoe;
  } else if (uif->mirror != 0) {
    *out_role = kRoleMirror;
  } else {
    *out_role = kRoleNone;
  }
  return 0;
}

int qel_json_port_status_limit_cnt(qel_text& out) {
  int count = 0;
  qel_table_walk(kSource, __LINE__, __func__, [&](struct uif* uif, qel_port* port) {
    if (port->reported == 1) {
      return true;
    }
    if (count == kPortsPerPage) {
      return false;
    }
    if (count > 0) {
      out.put(',');
    }
    ++count;
    port->reported = 1;
    put_port_entries(out, uif, port);
    return true;
  });
  return 0;
}

size_t qel_json_join_payload(qel_text& out) {
  // The report resets the count of online ports before the table is refreshed, so that a join
  // always tells "onlineports" as "0".
  qel_text& report = inner_area();
  qel_json_port_status(report);
  qel_devinfo_refresh();
  put_devtype(out);
  out.put(",\"config\":");
  put_info_table(out);
  put_status(out, report);
  out.put('}');
  return out.length();
}

size_t qel_json_update_config_payload(qel_text& out) {
  qel_devinfo_refresh();
  put_devtype(out);
  out.put(",\"config\":");
  put_info_table(out);
  out.put('}');
  return out.length();
}

size_t qel_json_update_ports_payload(qel_text& out) {
  qel_text& report = inner_area();
  qel_json_port_status(report);
  put_devtype(out);
  put_status(out, report);
  out.put('}');
  return out.length();
}

size_t qel_json_update_status_payload(qel_text& out) {
  qel_text& status = inner_area();
  qel_json_port_status_limit_cnt(status);
  put_devtype(out);
  put_status(out, status);
  out.put('}');
  return out.length();
}

size_t qel_json_uplink_totals_payload(qel_text& out) {
  out.put("{\"reptype\":\"uplinktotals\",\"data\":\"");
  bool first = true;
  for (const int32_t total : g_qel_dev.uplink_totals) {
    if (!first) {
      out.put(',');
    }
    first = false;
    out.put_int(total);
  }
  out.put("\"}");
  return out.length();
}

size_t qel_json_joinreq_msg(qel_text& out, const cJSON* request) {
  return wrap(out, "joinreq", qel_json_join_payload, request);
}

size_t qel_json_update_config_msg(qel_text& out, const cJSON* request) {
  return wrap(out, "update", qel_json_update_config_payload, request);
}

size_t qel_json_update_ports_msg(qel_text& out, const cJSON* request) {
  return wrap(out, "update", qel_json_update_ports_payload, request);
}

size_t qel_json_update_status_msg(qel_text& out, const cJSON* request) {
  return wrap(out, "update", qel_json_update_status_payload, request);
}
