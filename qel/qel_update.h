// SPDX-License-Identifier: Apache-2.0
//
// The senders of the join and update messages. Complete, and started by nothing in the agent.
#pragma once

#include "qel/qel_cjson.h"
#include "qel/qel_link.h"

// Starts an update cycle: no port reported, no port counted as online. Returns 0.
int qel_cmd_update_info_init();

// 1 when every physical port was reported in this cycle (or there is none), else 0.
int qel_cmd_get_port_update_info();

// Send a join request, or a whole update cycle (status pages, then the configuration), on `link`.
// `request` is the message being answered, or null. At most one of the two goes out in 10 seconds;
// sooner they do nothing. Return 0.
int qel_cmd_send_joinreq(const qel_link* link, const cJSON* request);
int qel_cmd_send_joinreq_once(const qel_link* link, const cJSON* request);
int qel_cmd_send_update(const qel_link* link, const cJSON* request);
