// SPDX-License-Identifier: Apache-2.0
//
// Alarms: eleven kinds of trouble, watched by scans, counted, and due when they last, are not too
// frequent, and say something new.
//
// Dormant at two points, on purpose: nothing drives qel_alarm_tick, and qel_alarm_notify sends
// nothing. Everything between them is complete.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "qel/qel_text.h"

// Kinds of alarm: index into the table and the names.
enum qel_alarm_type : uint32_t {
  kAlarmUnknown,
  kAlarmCpu,
  kAlarmMemory,
  kAlarmMacMove,
  kAlarmPoeError,
  kAlarmPoePower,
  kAlarmSpeedChange,
  kAlarmMstp,
  kAlarmOccupancy,
  kAlarmCrc,
  kAlarmPause,
  kAlarmTypes
};

inline constexpr size_t kQelAlarmMessageSize = 1024;

struct qel_alarm_entry {
  uint8_t active;                  // 1: the last check found the condition true
  uint8_t count;                   // checks in a row that did; wraps at 256
  char msg[kQelAlarmMessageSize];  // last reported, not terminated when it fills the array
  uint16_t msg_length;
  uint8_t msg_cut;      // 1: it was longer, and so equals nothing that comes later
  uint8_t* port_count;  // by port number, 0 to the last_port below: scans in a row; wraps at 256
  uint32_t* port_last;  // by port number: the last counter value
  uint32_t last_time;   // seconds since the epoch of the last report; 0: never
};
extern std::array<qel_alarm_entry, kAlarmTypes> g_qel_alarm_table;

struct qel_alarm_state {
  int32_t last_port;  // highest port number that the per-port arrays have room for
  int32_t scans;      // since the last MAC scan; those refused while alarms are disabled count, too
  int32_t ticks;      // since the last scan
};
extern qel_alarm_state g_qel_alarm_state;

// Zeroes table and state and sizes the per-port arrays for the ports there are. Called at start-up.
void qel_alarm_init();

// To be called once a second: scans on every fifth call. Returns 0.
int qel_alarm_tick();

// One scan of everything. Returns 0, or -1 when alarms are disabled.
int qel_alarm_scan();

// The general rule: reports `type` when `condition` (0 or 1) held `need_count` times in a row (0:
// no count needed), the last report is `min_interval` seconds past, and `msg` is new (null: no
// message to compare). Returns 0.
int qel_alarm_update(uint32_t type, int condition, int32_t need_count, int32_t min_interval,
                     const char* msg);

// The rule for lists of ports: interval and message only. Returns 0.
int qel_alarm_update_ports(uint32_t type, int32_t min_interval, const char* msg);

// Reads the statistics module and feeds the per-port counters. Returns 0.
int qel_alarm_port_statistics_check();

// Counts the scans in a row in which the value of `port` rose. Returns 0; -1 for a port or type out
// of range (told on standard output).
int qel_alarm_statistics_fillin(uint32_t type, int32_t port, uint32_t value);

// Counts the scans in a row in which the port's traffic passed its threshold. Returns as above.
int qel_alarm_port_occupancy_fillin(uint32_t type, int32_t port, int32_t rx_bytes,
                                    int32_t tx_bytes);

// Reports the ports whose counter of `type` reached 12. Returns 0.
int qel_alarm_ports_report(uint32_t type);

// Writes the alarm object of `type`, which is not checked. Returns the length.
size_t qel_alarm_json_build(qel_text& out, uint32_t type);

// The hand-over to the gateway: does nothing in this system. Returns 0.
int qel_alarm_notify(uint32_t type);
