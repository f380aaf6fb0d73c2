// SPDX-License-Identifier: Apache-2.0
//
// Queries to the switch's other daemons: two builders that write one query message, a wrapper for
// each module command that the agent uses, and three small port functions.
//
// A query holds the event loop until the platform returns. Replies are hostile: they are text of
// at most JCLIENT_REPLY_SIZE bytes, and every reply area here has that size.
#pragma once

#include "platform/jclient.h"
#include "qel/qel_cjson.h"

// Whether a text of a message may stand in a query as it is (qel_text_is_plain). One that may not
// is reported on the console, without the text, in the name of `function` and its `line`.
bool qel_mono_text_ok(const char* function, int line, const char* text);

// The agent's one reply area (JCLIENT_REPLY_SIZE bytes), all zeros. Valid until the next call: a
// caller is done with it before it starts anything that queries again.
char* qel_mono_reply_area();

// Send {"mdl":module,"cmd":command,"data":payload}, or "config" in place of "data". `payload` is
// JSON text, or null for none; `module` and `command` stand in the query as they are, so a caller
// checks those of a message. `reply` null wants no answer. A query that does not fit its buffer
// is told on the console and not sent. Return 0 whatever happened: a query without an answer
// leaves `reply` as it was, and callers see that it does not parse.
int qel_mono_query_data(const char* payload, const char* module, const char* command, char* reply);
int qel_mono_query_config(const char* payload, const char* module, const char* command,
                          char* reply);

// One module command each; payload and reply as above. Return 0.
int qel_mono_port_config_set_all(const char* payload, char* reply);
int qel_mono_poe_port_config_set(const char* payload, char* reply);
int qel_mono_port_enable_set(const char* payload, char* reply);
int qel_mono_port_speed_set(const char* payload, char* reply);
int qel_mono_port_reboot_set_all(const char* payload, char* reply);
int qel_mono_poe_port_reboot(const char* payload, char* reply);
int qel_mono_poe_port_config_get_all(char* reply);
int qel_mono_poe_alarm_info_get(char* reply);
int qel_mono_port_basic_statistic_get_all(char* reply);
int qel_mono_port_statistic_get_all(char* reply);
int qel_mono_port_statistic_dot3_get_all(char* reply);
int qel_mono_mstp_alarm_info_get(char* reply);
int qel_mono_llpp_port_config_get_all(char* reply);
int qel_mono_l3if_set(const char* payload, char* reply);
int qel_mono_l3if_get(char* reply);
int qel_mono_product_description_set(const char* payload, char* reply);

// Number of physical ports in the interface list.
int qel_mono_get_port_count();

// Marks blocked exactly the ports that the reply's "ports" text names, blank-separated; unknown
// names are skipped. With a null reply, or without "ports", no port is blocked. Returns 0.
int qel_mono_update_ports_blocked(const cJSON* reply);

// Sends one port configuration to every module that keeps settings of ports, PoE only where nvram
// "have_poe" says so. The replies are not read. Returns 0.
int qel_mono_update_portinfo_all(const char* payload, char* reply);
