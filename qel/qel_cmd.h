// SPDX-License-Identifier: Apache-2.0
//
// Command dispatch: parses a gateway's message once and calls the handlers of its command-table
// row. The handlers themselves live in qel_cmd_port, qel_cmd_report, qel_cmd_system, qel_cmd_conf,
// qel_cmd_firmware and, for the typed message form, qel_cmd_typed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qel/qel_cjson.h"
#include "qel/qel_link.h"

// Handles one message. `text` is NUL-terminated; for Ethernet it stands in an area of
// kTextReadSize + 1 bytes. `lenfield` is the frame header's length field, 0 for UDP. `received` is
// the number of bytes at `text` that arrived: a chunk lies inside them. A message without chunk may
// leave it 0. Returns 0 always; drops a text that is no message silently.
int qel_cmd_dispatch(qel_link* link, const char* text, uint16_t lenfield, size_t received = 0);

// A handler: the reply address, the parsed root (the dispatcher's; not kept), the message text.
// The result is ignored by the dispatcher.
using qel_cmd_handler = int (*)(qel_link* link, const cJSON* root, const char* text);

// Identity.
int qel_cmd_handle_probe(qel_link* link, const cJSON* root, const char* text);

// Reports (qel_cmd_report): send on `link`, return 0.
int qel_cmd_handle_ports_info(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_ports_conf(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_ports_link(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_ports_poe(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_ports_client(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_ports_stats(qel_link* link, const cJSON* root, const char* text);

// Port commands (qel_cmd_port). None but qelipc answers. Return 0; -1 when the data of a
// configuration cannot be printed.
int qel_cmd_handle_portsconf_set(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_port_enable(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_port_speed(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_port_restart(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_qelipc(qel_link* link, const cJSON* root, const char* text);

// Asks the module "mono" to enable or disable a port, or to set its speed by name. A name that is
// null, or that is not plain text, is reported on the console and sends nothing. Return 0.
int qel_cmd_port_enable_update(const char* port_name, int32_t enable);
int qel_cmd_port_speed_update(const char* port_name, const char* speed_name);

// The code of a speed name, 0..14; 15 when the table has no such name (or it is null).
int qel_port_speed_code(const char* name);

// System commands (qel_cmd_system). Return 0, or -1 where the message lacks what it needs.
int qel_cmd_handle_pingnew(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_sys_ip(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_sys_time(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_sys_reboot(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_config_reset(qel_link* link, const cJSON* root, const char* text);
int qel_sys_active(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_name(qel_link* link, const cJSON* root, const char* text);

// Transfers (qel_cmd_conf, qel_cmd_firmware). A "data" that is no object counts as absent. The
// download handlers take the frame's length field, and how many bytes of the message arrived: the
// chunk's bytes begin at the length field minus 16, counted from the text.
int qel_cmd_handle_conf_get(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_hfs_upgrade(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_conf_download(qel_link* link, const cJSON* root, const char* text,
                                 uint16_t lenfield, size_t received);
int qel_cmd_handle_firm_download(qel_link* link, const cJSON* root, const char* text,
                                 uint16_t lenfield, size_t received);
// An older chunk handler; no table row reaches it. `area` is the number of bytes readable at text.
int qel_cmd_handle_upgrade(qel_link* link, const cJSON* root, const char* text, size_t area);

// Handlers of the typed message form (qel_cmd_typed). They are complete, and no table reaches them.
int qel_cmd_handle_pingresp(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_reqid(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_none(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_port_set(qel_link* link, const cJSON* root, const char* text);
int qel_cmd_handle_port_reboot(qel_link* link, const cJSON* root, const char* text);
