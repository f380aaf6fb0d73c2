// SPDX-License-Identifier: Apache-2.0
//
// Gateway presence and the periodic port timers: the table of gateways that have probed lately, the
// sender of unsolicited messages to them, and what runs for each port once a second.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/uclient.h"
#include "qel/qel_link.h"
#include "qel/qel_text.h"

inline constexpr size_t kQelGateways = 4;
inline constexpr size_t kQelGatewayNameSize = 32;

struct qel_gw {
  uint32_t active;                 // 1: present; 0: offline or free
  uint32_t ntick;                  // of its last probe
  uint32_t last_seen;              // uptime in seconds of its last probe; 0: entry never used
  qel_link link;                   // reply address of its last probe
  char name[kQelGatewayNameSize];  // the "mac" text of its probe, cut if longer
};
extern std::array<qel_gw, kQelGateways> g_qel_gw;

// The entry for `name` (null counts as ""): its own one; else the first that is free or offline,
// cleared and named; else the first as it is. Never null.
qel_gw* qel_gw_lookup(const char* name);

// Records a probe: the gateway is present from now on. Called for every probe.
void qel_gw_update(const char* name, int32_t ntick, const qel_link* link);

// Marks gateways offline that were silent for 11 seconds or more.
void qel_gw_offline_check();

// Sends one message of `length` bytes to every present gateway. The buffer as qel_cmd_send wants
// it. Returns 0.
int qel_gw_trap(const char* text, size_t length);
int qel_gw_trap_text(const qel_text& text);

// Ages out clients that were not reported for 301 seconds or more.
void qel_port_client_timer();

// Counts down port restarts and enables the ports whose time is over.
void qel_port_restart_timer();

// The three of them in this order, once a second: offline check, client timer, restart timer.
void qel_gw_timer();

// The interface manager's status hook: applies the message and reports the port's client to every
// present gateway. Returns 0.
int qel_if_status(struct uclient* client, const struct uclient_msg* msg);
