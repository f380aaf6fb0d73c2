// SPDX-License-Identifier: Apache-2.0
//
// The alarm table and its two rules; what is checked stands in qel_alarm_check.cpp.
#include "qel/qel_alarm.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/log.h"
#include "platform/uif.h"
#include "qel/qel_devinfo.h"
#include "qel/qel_os.h"

namespace {

constexpr char kSource[] = "qel/qel_alarm";

// The peers know the second by this spelling.
constexpr char kNames[kAlarmTypes][128] = {
    "unknown_alarm",
    "cpu_occupancy_exceed_alarm",
    "memery_occupancy_exceed_alarm",
    "mac_move_alarm",
    "poe_error_alarm",
    "poe_over_pwr_alarm",
    "ports_speed_change_alarm",
    "ports_mstp_alarm",
    "ports_occupancy_exceed_alarm",
    "ports_crc_alarm",
    "ports_pause_alarm",
};

uint32_t now_seconds() {
  return static_cast<uint32_t>(qel_os_time());
}

std::string_view message_of(const qel_alarm_entry& entry) {
  return {entry.msg, entry.msg_length};
}

// Takes over a message, cut at the entry's size. A cut one never equals what comes later, so that a
// state too long to keep is reported again rather than missed.
void keep_message(qel_alarm_entry& entry, std::string_view msg) {
  const size_t length = std::min(msg.size(), sizeof entry.msg);
  std::memcpy(entry.msg, msg.data(), length);
  std::memset(entry.msg + length, 0, sizeof entry.msg - length);
  entry.msg_length = static_cast<uint16_t>(length);
  entry.msg_cut = msg.size() > sizeof entry.msg ? 1 : 0;
}

// What both rules end with: interval, message, report.
int report_if_due(uint32_t type, int32_t min_interval, const char* msg, uint32_t now) {
  qel_alarm_entry& entry = g_qel_alarm_table[type];
  if (static_cast<int32_t>(now - entry.last_time) < min_interval) {
    return 0;
  }
  if (msg != nullptr) {
    if (entry.msg_cut == 0 && message_of(entry) == msg) {
      return 0;
    }
    keep_message(entry, msg);
  }
  qel_alarm_notify(type);
  entry.last_time = now;
  return 0;
}

template <typename Value>
Value* new_array(size_t count) {
  auto* array = static_cast<Value*>(std::calloc(count, sizeof(Value)));
  if (array == nullptr) {
    zlog_assert_failed("array != ((void *)0)", kSource, __LINE__, "qel_alarm_init");
  }
  return array;
}

}  // namespace

std::array<qel_alarm_entry, kAlarmTypes> g_qel_alarm_table;
qel_alarm_state g_qel_alarm_state;

void qel_alarm_init() {
  g_qel_alarm_state = qel_alarm_state{};
  g_qel_alarm_state.last_port = std::max(g_port_max, 0);
  const size_t ports = static_cast<size_t>(g_qel_alarm_state.last_port) + 1;
  for (qel_alarm_entry& entry : g_qel_alarm_table) {
    std::free(entry.port_count);
    std::free(entry.port_last);
    entry = qel_alarm_entry{};
    entry.port_count = new_array<uint8_t>(ports);
    entry.port_last = new_array<uint32_t>(ports);
  }
}

int qel_alarm_update(uint32_t type, int condition, int32_t need_count, int32_t min_interval,
                     const char* msg) {
  if (type >= kAlarmTypes) {
    return 0;
  }
  qel_alarm_entry& entry = g_qel_alarm_table[type];
  const uint32_t now = now_seconds();
  if (condition != 0) {
    ++entry.count;
    entry.active = 1;
  } else {
    entry.count = 0;
    entry.active = 0;
  }
  if (need_count != 0 && entry.count < need_count) {
    return 0;
  }
  return report_if_due(type, min_interval, msg, now);
}

int qel_alarm_update_ports(uint32_t type, int32_t min_interval, const char* msg) {
  return type < kAlarmTypes ? report_if_due(type, min_interval, msg, now_seconds()) : 0;
}

size_t qel_alarm_json_build(qel_text& out, uint32_t type) {
  const qel_alarm_entry& entry = g_qel_alarm_table[type];
  out.put("{\"alarm_type\":\"");
  out.put(kNames[type]);
  out.put("\",\"ip\":\"");
  out.put(qel_devinfo_value(qel_info::ip));
  out.put("\",\"sysname\":\"");
  out.put(qel_devinfo_value(qel_info::device_name));
  out.put('"');
  if (entry.msg_length != 0) {
    // The message is JSON itself.
    out.put(",\"alarm_msg\":");
    out.put(message_of(entry));
  }
  out.put('}');
  return out.length();
}
