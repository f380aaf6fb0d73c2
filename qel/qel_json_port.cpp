// SPDX-License-Identifier: Apache-2.0
//
// The compact per-port reports: one row of numbers and names for each physical port.
#include <array>

#include "platform/sys.h"
#include "qel/qel_json.h"
#include "qel/qel_mono.h"
#include "qel/qel_table.h"

namespace {

constexpr char kSource[] = "qel/qel_json";
constexpr int32_t kPageRows = 20;

constexpr std::array kSpeedConfNames = {"AN",     "10M",    "10M-H", "10M-F", "100M",
                                        "100M-H", "100M-F", "1G",    "1G-F",  "2.5G",
                                        "5G",     "10G",    "25G",   "40G",   "100G"};

constexpr std::array kMediaNames = {"F",   "FF",   "G",    "GF",   "2.5G", "2.5GF",
                                    "10G", "10GF", "25GF", "40GF", "100GF"};
constexpr int32_t kMediaGiga = 2;
constexpr int32_t kMediaTenGigaFibre = 7;

// Starts a report. Every one resets the count of online ports: only the key/value status counts.
void start(qel_text& out, const char* subcmd) {
  g_qel_dev.online_ports = 0;
  qel_json_update_head(out, subcmd);
}

void start_row(qel_text& out, int32_t rows_before, const char* name) {
  if (rows_before > 0) {
    out.put(',');
  }
  out.put('"');
  out.put(name);
  out.put("\":[");
}

void put_numbers(qel_text& out, std::initializer_list<int64_t> numbers) {
  bool first = true;
  for (const int64_t number : numbers) {
    if (!first) {
      out.put(',');
    }
    first = false;
    out.put_int(number);
  }
}

size_t finish(qel_text& out) {
  out.put("}}");
  return out.length();
}

// One row for each physical port: values(uif, port, ordinal) writes what stands in the brackets.
template <typename Values>
void write_rows(qel_text& out, unsigned line, const char* function, Values values) {
  int32_t rows = 0;
  qel_table_walk(kSource, line, function, [&](struct uif* uif, qel_port* port) {
    start_row(out, rows, uif->name);
    values(uif, port, rows);
    out.put(']');
    ++rows;
    return true;
  });
}

// The same for one page: the ports whose ordinal from 1 is above page x 20. With 20 rows the walk
// ends, and looks at no further port.
template <typename Values>
void write_page(qel_text& out, int32_t page, unsigned line, const char* function, Values values) {
  int32_t ordinal = 0;
  int32_t rows = 0;
  qel_table_walk(kSource, line, function, [&](struct uif* uif, qel_port* port) {
    ++ordinal;
    if (ordinal <= page * kPageRows) {
      return true;
    }
    start_row(out, rows, uif->name);
    values(uif, port);
    out.put(']');
    return ++rows < kPageRows;
  });
}

int port_switch(const char* pattern, const char* name) {
  char key[64];
  qel_text text(key, sizeof key);
  text.put(pattern);
  text.put('.');
  text.put(name);
  text.put(".enable");
  return nvram_get_int_default(key, 0);
}

int32_t media_index(const struct uif* uif) {
  const bool fibre = uif->medium == UIF_MEDIUM_FIBRE;
  const bool copper = uif->medium == UIF_MEDIUM_COPPER;
  switch (uif->speed_class) {
    case UIF_CLASS_FAST:
      return copper ? 0 : fibre ? 1 : kMediaGiga;
    case UIF_CLASS_GIGA:
      if ((copper || fibre) && (uif->max_speed == 1000 || uif->max_speed == 2500)) {
        return kMediaGiga + (fibre ? 1 : 0) + (uif->max_speed == 2500 ? 2 : 0);
      }
      return kMediaGiga;
    case UIF_CLASS_TEN_GIGA:
      return kMediaTenGigaFibre;
    default:
      return kMediaGiga;
  }
}

}  // namespace

void qel_json_head(qel_text& out, const char* cmd, const char* subcmd) {
  uint8_t mac[6] = {};
  sys_mac_get(mac);
  out.put("{\"mac\":\"");
  out.put_mac(mac);
  out.put("\",\"cmd\":\"");
  out.put(cmd);
  out.put("\",\"subcmd\":\"");
  out.put(subcmd);
  out.put("\",\"data\":");
}

void qel_json_update_head(qel_text& out, const char* subcmd) {
  qel_json_head(out, "update", subcmd);
  out.put('{');
}

const char* qel_json_speed_cfg_name(int32_t index) {
  const bool known = index >= 0 && static_cast<size_t>(index) < kSpeedConfNames.size();
  return kSpeedConfNames[known ? static_cast<size_t>(index) : 0];
}

const char* qel_json_media_name_by_index(int32_t index) {
  const bool known = index >= 0 && static_cast<size_t>(index) < kMediaNames.size();
  return kMediaNames[static_cast<size_t>(known ? index : kMediaGiga)];
}

const char* qel_json_port_media_name(const struct uif* uif) {
  return qel_json_media_name_by_index(media_index(uif));
}

size_t qel_json_port_status(qel_text& out) {
  start(out, "ports_info");
  write_rows(out, __LINE__, __func__, [&](struct uif* uif, qel_port*, int32_t index) {
    put_numbers(out, {index, uif->medium});
    out.put(",\"");
    out.put(qel_json_port_media_name(uif));
    out.put(uif->aux_index >= 0 ? "\",1" : "\",0");
  });
  return finish(out);
}

size_t qel_json_port_pos(qel_text& out) {
  start(out, "ports_pos");
  write_rows(out, __LINE__, __func__, [&](struct uif* uif, qel_port*, int32_t) {
    put_numbers(out, {uif->pos_x, uif->pos_y});
  });
  return finish(out);
}

size_t qel_json_port_get_config(qel_text& out, int32_t page) {
  start(out, "ports_conf");
  write_page(out, page, __LINE__, __func__, [&](struct uif* uif, qel_port*) {
    out.put(uif_is_enable(uif) != 0 ? '1' : '0');
    out.put(",\"");
    // The link speed in Mbit/s is taken for an index of the configured speeds, as peers know it:
    // nearly every port so reports "AN", and one at 10 Mbit/s "5G".
    out.put(qel_json_speed_cfg_name(uif->speed));
    out.put("\",");
    const char* name = uif->name;
    put_numbers(out,
                {port_switch("iso", name), port_switch("eee", name), port_switch("llpp", name),
                 port_switch("mstp", name), port_switch("lldp", name), port_switch("poe", name)});
  });
  return finish(out);
}

size_t qel_json_port_link(qel_text& out) {
  start(out, "ports_link");
  write_rows(out, __LINE__, __func__, [&](struct uif* uif, qel_port* port, int32_t) {
    const int link = uif_is_linkup(uif) != 0 ? 1 : 0;
    put_numbers(out, {link, uif->speed, uif->duplex, port->restart_left});
  });
  return finish(out);
}

size_t qel_json_ports_states(qel_text& out, int32_t page) {
  start(out, "ports_stats");
  write_page(out, page, __LINE__, __func__, [&](struct uif*, qel_port* port) {
    out.put_uint(port->tx_sum);
    out.put(',');
    out.put_uint(port->rx_sum);
    out.put(',');
    out.put_uint(port->tx_rate);
    out.put(',');
    out.put_uint(port->rx_rate);
  });
  return finish(out);
}

size_t qel_json_port_get_poeconf(qel_text& out) {
  start(out, "ports_poe_conf");
  char* reply = qel_mono_reply_area();
  qel_mono_poe_port_config_get_all(reply);
  const qel_cjson_tree tree(cJSON_Parse(reply));
  if (tree == nullptr) {
    write_rows(out, __LINE__, __func__, [&](struct uif*, qel_port*, int32_t) {
      put_numbers(out, {0, 0});
    });
    return finish(out);
  }
  // The module's own order and names, whatever the port list holds.
  int32_t rows = 0;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, cJSON_GetObjectItem(tree.get(), "data")) {
    const char* name = cJSON_GetObjectItemString(element, "name");
    // No port has a name that could write members of its own.
    if (name == nullptr || !qel_text_is_plain(name)) {
      continue;
    }
    start_row(out, rows, name);
    put_numbers(out, {cJSON_GetObjectItemInt(element, "enable"),
                      cJSON_GetObjectItemInt(element, "supply_priority")});
    out.put(']');
    ++rows;
  }
  return finish(out);
}
