// SPDX-License-Identifier: Apache-2.0
//
// The device record and the per-port records: what the agent knows of its switch and of each port.
// Created once at start-up, alive until exit, touched by the event loop's thread only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/list.h"
#include "platform/log.h"
#include "platform/uif.h"

inline constexpr size_t kQelDevidSize = 32;
inline constexpr size_t kQelDescnameSize = 64;
inline constexpr size_t kQelUplinkTotals = 24;

// The one device record; zero-filled, then initialised by qel_dev_init.
struct qel_dev {
  char devid[kQelDevidSize];   // "SW_" and the management MAC in upper-case hexadecimal
  uint16_t pktid;              // of the next envelope; wraps from 65535 to 0
  uint64_t reqid;              // of the next tracked request; starts at 1
  int32_t udp_fd;              // 0: not open
  int32_t eth_fd;              // 0: not open
  uint32_t enable;             // 1: switched on
  uint32_t online_ports;       // every report builder zeroes it, the key/value status counts it
  uint32_t alarm_stat_enable;  // alarms are scanned only when exactly 1; nothing sets it
  uint32_t debug;              // bits of qel_console.h
  int32_t join_time;           // seconds since the epoch of the last join or update; 0: never
  uint8_t mac[6];              // of "vlanif1"
  uint8_t conf_busy;           // 1 while a configuration archive is held for upload
  uint8_t conf_age;            // seconds since it was last asked for
  int32_t sys_active;          // the gateway's countdown, in seconds
  int32_t uplink_totals[kQelUplinkTotals];
};
extern qel_dev g_qel_dev;

// The agent's record of one physical port, hung on the platform's interface record.
struct qel_port {
  uint8_t lldp_seen;      // 1 once a neighbour was reported; never cleared
  uint8_t client_mac[6];  // all zero: none
  uint32_t client_ip;     // network byte order; 0: unknown
  uint32_t client_time;   // uptime in seconds of the last neighbour report; 0: no client
  uint64_t tx_sum;        // traffic as the module "statistics" last told it
  uint64_t rx_sum;
  uint64_t tx_rate;
  uint64_t rx_rate;
  uint8_t reported;        // 1: key/value status sent in this update cycle
  uint8_t blocked;         // 1: by spanning tree or loop protection
  uint8_t poe_priority;    // as the module "poe" numbers it
  uint8_t neighbour_type;  // client type codes of qel_client.h
  uint8_t restart_left;    // seconds until a restarted port is enabled again; 0: no restart
  uint32_t power;          // PoE draw in milliwatts
  uint32_t power_max;      // PoE limit
  char descname[kQelDescnameSize];
};

// The name of the management interface: the one wire on which the gateway is heard.
inline constexpr char kQelManagementInterface[] = "vlanif1";

// The record of a physical port; null for any other interface. `uif` may be null.
qel_port* qel_port_of(const struct uif* uif);

// Allocates a zeroed record for each physical port in the interface list. Runs once, at start-up;
// ports added later get none, and everything skips them.
void qel_table_dev_init();

// Initialises the device record and what hangs on it: identity, the sockets towards the gateway,
// the MAC list, the alarm state.
void qel_dev_init();

// Walks the physical ports of the interface list in its order and calls visit(uif, port) for each
// that has a record. A node without data is a broken invariant and ends the process, told with the
// caller's source path, line and function. `visit` returns false to end the walk.
template <typename Visit>
void qel_table_walk(const char* file, unsigned line, const char* function, Visit visit) {
  for (const listnode* node = g_uif_list->head; node != nullptr; node = node->next) {
    if (node->data == nullptr) {
      zlog_assert_failed("(node)->data != ((void *)0)", file, line, function);
    }
    auto* uif = static_cast<struct uif*>(node->data);
    qel_port* port = qel_port_of(uif);
    if (port != nullptr && !visit(uif, port)) {
      return;
    }
  }
}
