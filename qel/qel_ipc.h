// SPDX-License-Identifier: Apache-2.0
//
// The local event socket: the switch's other daemons tell of neighbours, clients, PoE power and the
// agent's own switch by JSON datagrams, one event each.
#pragma once

#include "platform/loop.h"
#include "qel/qel_cjson.h"

// Creates and binds the socket and registers the read handler. Returns the descriptor; when it
// cannot be created or bound that is told by perror and the agent runs on without local events.
int qel_ipc_sock_init();

// Read callback ("qel_ipc_sock_read"): one datagram; registers itself again whatever happened.
int qel_ipc_sock_read(struct thread* thread);

// Handles one event text (NUL-terminated); what is no event is ignored. Returns 0.
int qel_ipc_cmd_handle(const char* text);

// One handler for each event type that says something. Return 0, or -1 when a member is missing.
int qel_ipc_handle_lldp_add(const cJSON* msg);
int qel_ipc_handle_arpsnoop_add(const cJSON* msg);
int qel_ipc_handle_poe_update(const cJSON* msg);
int qel_ipc_handle_cldm_conf(const cJSON* msg);
int qel_ipc_handle_dhcpsnoop_add(const cJSON* msg);
int qel_ipc_handle_onvif_discover(const cJSON* msg);

// Runs the camera discovery on every 30th call. Nobody calls it. Returns 0.
int qel_ipc_onvif_trigger();
