// SPDX-License-Identifier: Apache-2.0
//
// What an alarm scan checks: occupancy, PoE power, spanning tree and loops, counters of ports.
#include <algorithm>
#include <cstring>

#include "platform/uif.h"
#include "qel/qel_alarm.h"
#include "qel/qel_cjson.h"
#include "qel/qel_console.h"
#include "qel/qel_devinfo.h"
#include "qel/qel_mac.h"
#include "qel/qel_mono.h"
#include "qel/qel_table.h"

namespace {

constexpr int kTicksPerScan = 5;
constexpr int kScansPerMacScan = 2;
constexpr int kOccupancyLimit = 90;    // percent
constexpr int32_t kScansInARow = 36;   // of a condition, until it is reported
constexpr int32_t kHour = 3600;        // seconds between two reports of one kind
constexpr int32_t kMstpInterval = 12;  // seconds
constexpr double kPoeLimit = 0.95;     // of the power budget
constexpr uint8_t kPortScansInARow = 12;
constexpr uint32_t kBytesPerMbit = 870;  // threshold of a scan's traffic by link speed
constexpr size_t kMessageSize = 1024;    // of a list of port names

void update_percent(uint32_t type, int value, bool condition) {
  char area[64] = {};
  qel_text msg(area, sizeof area);
  msg.printf("{\"value\":\"%d\"}", value);
  qel_alarm_update(type, condition ? 1 : 0, kScansInARow, kHour, msg.c_str());
}

int qel_alarm_cpu_check() {
  const int percent = qel_cpu_occupancy_now();
  update_percent(kAlarmCpu, percent, percent >= kOccupancyLimit);
  return 0;
}

int qel_alarm_mem_check() {
  const int percent = qel_mem_occupancy_now();
  update_percent(kAlarmMemory, percent, percent >= kOccupancyLimit);
  return 0;
}

// Two kinds that nothing detects.
int qel_alarm_poe_error_check() {
  return 0;
}
int qel_alarm_speed_change_check() {
  return 0;
}

int qel_alarm_poe_check() {
  constexpr int32_t kPowerPerPercent = 100;
  char* reply = qel_mono_reply_area();
  qel_mono_poe_alarm_info_get(reply);
  const qel_cjson_tree tree(cJSON_Parse(reply));
  const int32_t total = cJSON_GetObjectItemIntDef(tree.get(), "totalpower", 0);
  if (tree == nullptr || total == 0) {
    return 0;
  }
  const int32_t used = cJSON_GetObjectItemIntDef(tree.get(), "usepower", 0);
  const auto limit = static_cast<int32_t>(static_cast<double>(total) * kPoeLimit);
  if (used >= limit) {
    qel_stdout("totalpower=%d usepower=%d action=%d \r\n", limit, used, 1);
  }
  update_percent(kAlarmPoePower, used / kPowerPerPercent, used >= limit);
  return 0;
}

// Every change of the state's text is reported, whatever it says.
int qel_alarm_mstp_check() {
  char* reply = qel_mono_reply_area();
  qel_mono_mstp_alarm_info_get(reply);
  qel_cjson_tree tree(cJSON_Parse(reply));
  if (tree == nullptr) {
    reply = qel_mono_reply_area();
    qel_mono_llpp_port_config_get_all(reply);
    tree.reset(cJSON_Parse(reply));
  }
  qel_mono_update_ports_blocked(tree.get());
  const qel_cjson_text msg(tree != nullptr ? cJSON_PrintUnformatted(tree.get()) : nullptr);
  if (msg != nullptr) {
    qel_alarm_update(kAlarmMstp, 1, 0, kMstpInterval, msg.get());
  }
  return 0;
}

// The highest port number that counts: the platform's, as far as the arrays have room.
int32_t last_port() {
  return std::min(g_port_max, g_qel_alarm_state.last_port);
}

bool in_range(uint32_t type, int32_t port) {
  return port >= 0 && port <= last_port() && type < kAlarmTypes &&
         g_qel_alarm_table[type].port_count != nullptr;
}

}  // namespace

int qel_alarm_tick() {
  if (++g_qel_alarm_state.ticks >= kTicksPerScan) {
    g_qel_alarm_state.ticks = 0;
    qel_alarm_scan();
  }
  return 0;
}

int qel_alarm_scan() {
  int32_t& scans = g_qel_alarm_state.scans;
  scans = static_cast<int32_t>(static_cast<uint32_t>(scans) + 1);
  if (g_qel_dev.alarm_stat_enable != 1) {
    return -1;
  }
  qel_alarm_cpu_check();
  qel_alarm_mem_check();
  qel_alarm_poe_error_check();
  qel_alarm_poe_check();
  qel_alarm_speed_change_check();
  qel_alarm_mstp_check();
  qel_alarm_port_statistics_check();
  qel_alarm_ports_report(kAlarmCrc);
  qel_alarm_ports_report(kAlarmPause);
  qel_alarm_ports_report(kAlarmOccupancy);
  if (scans >= kScansPerMacScan) {
    qel_mac_scan_check_l2_map();
    scans = 0;
  }
  return 0;
}

int qel_alarm_port_statistics_check() {
  char* reply = qel_mono_reply_area();
  qel_mono_port_statistic_dot3_get_all(reply);
  const qel_cjson_tree tree(cJSON_Parse(reply));
  const cJSON* data = cJSON_GetObjectItem(tree.get(), "data");
  if (cJSON_IsArray(data) == 0) {
    return 0;
  }
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, data) {
    const char* name = cJSON_GetObjectItemString(element, "name");
    const struct uif* uif = name != nullptr ? uif_lookup_by_name(name) : nullptr;
    if (uif == nullptr) {
      continue;
    }
    const auto value = [element](const char* member) {
      return cJSON_GetObjectItemIntDef(element, member, 0);
    };
    qel_alarm_statistics_fillin(kAlarmCrc, uif->port_no,
                                static_cast<uint32_t>(value("dot3_FCSErrors")));
    qel_alarm_statistics_fillin(kAlarmPause, uif->port_no,
                                static_cast<uint32_t>(value("dot3_InPauseFrames")));
    // Counted under another kind than the one that is reported, so that the occupancy alarm never
    // fires. Known, and kept.
    qel_alarm_port_occupancy_fillin(kAlarmSpeedChange, uif->port_no, value("rx_bytes"),
                                    value("tx_bytes"));
  }
  return 0;
}

int qel_alarm_statistics_fillin(uint32_t type, int32_t port, uint32_t value) {
  if (!in_range(type, port)) {
    qel_stdout("%s portindex=%d type=%d \r\n", __func__, port, static_cast<int>(type));
    return -1;
  }
  qel_alarm_entry& entry = g_qel_alarm_table[type];
  if (value > entry.port_last[port]) {
    entry.port_last[port] = value;
    ++entry.port_count[port];
  } else {
    // After a counter reset the old value stands until the counter passes it again.
    entry.port_count[port] = 0;
  }
  return 0;
}

int qel_alarm_port_occupancy_fillin(uint32_t type, int32_t port, int32_t rx_bytes,
                                    int32_t tx_bytes) {
  if (!in_range(type, port)) {
    qel_stdout("portindex=%d type=%d \r\n", port, static_cast<int>(type));
    return -1;
  }
  const struct uif* uif = uif_lookup_by_port_index(port - 1);
  if (uif == nullptr) {
    qel_stdout("uif err portindex=%d type=%d \r\n", port, static_cast<int>(type));
    return -1;
  }
  const auto threshold = static_cast<int32_t>(static_cast<uint32_t>(uif->speed) * kBytesPerMbit);
  uint8_t& count = g_qel_alarm_table[type].port_count[port];
  count =
      rx_bytes > threshold || tx_bytes > threshold ? static_cast<uint8_t>(count + 1) : uint8_t{0};
  return 0;
}

int qel_alarm_ports_report(uint32_t type) {
  if (type >= kAlarmTypes || g_qel_alarm_table[type].port_count == nullptr) {
    return 0;
  }
  char area[kMessageSize + sizeof "{\"ports\":\"\"}"] = {};
  qel_text msg(area, sizeof area);
  bool flagged = false;
  msg.put("{\"ports\":\"");
  const size_t list_end = msg.length() + kMessageSize;
  for (int32_t p = 0; p < last_port(); ++p) {
    if (g_qel_alarm_table[type].port_count[p] < kPortScansInARow) {
      continue;
    }
    flagged = true;
    // The counters stand by port number, the look-up by index from 0; the two are used as one.
    const struct uif* uif = uif_lookup_by_port_index(p);
    if (uif != nullptr && msg.length() + std::strlen(uif->name) + 1 <= list_end) {
      msg.put(uif->name);
      msg.put(' ');
    }
  }
  msg.put("\"}");
  if (flagged) {
    qel_alarm_update_ports(type, kHour, msg.c_str());
  }
  return 0;
}
