// SPDX-License-Identifier: Apache-2.0
//
// MAC move detection: keeps the addresses of the switch chip's table, each with the port it was
// learnt on, and raises an alarm when one shows up on another port of the same VLAN.
#pragma once

#include <cstdint>

#include "platform/hal.h"
#include "platform/list.h"

inline constexpr unsigned kQelMacRecords = 512;

struct qel_mac_entry {
  uint32_t port;  // interface index
  uint32_t type;
  uint16_t vid;
  uint8_t mac[6];
  uint32_t aging_time;  // 0 during a scan until the address is seen; still 0 after it: dropped
};

// The addresses seen so far, at most kQelMacRecords; its del frees them.
extern struct list* g_qel_cur_mac_list;

// Creates the list. Called at start-up.
void qel_mac_init();

// One scan of the chip's table. Returns 0; -1 when it cannot be read (nothing is dropped then).
int qel_mac_scan_check_l2_map();

// Applies one entry of the chip's table. Returns the length of the alarm text built, 0 for none.
int qel_mac_find_move_process(struct list* list, const struct hal_mac_entry* entry);

// Set every record's aging time to 0; delete the records whose aging time is 0.
void qel_mac_reset_list(struct list* list);
void qel_mac_clear_old_list(struct list* list);

// Maintenance by hand; nobody calls them. Delete every record of a port (each told on standard
// output); print the list; find the first record with the key's port and MAC, or null; delete that
// one: 0, or -1 when an argument is null or nothing matches.
void qel_mac_clear_port_list(uint32_t port);
void qel_mac_list_show(const struct list* list);
qel_mac_entry* qel_mac_look_up_by_node(const struct list* list, const qel_mac_entry* key);
int qel_mac_delete_node(struct list* list, const qel_mac_entry* key);
