// SPDX-License-Identifier: Apache-2.0
//
// Builders of everything that the gateway reads. They write into a caller's text and return its
// length in bytes, closing NUL not counted unless said; a text that did not fit is longer than any
// message can be, and the sender refuses it.
//
// Texts are inserted without JSON escaping: the peers read them as they have always been written.
// Those that come from outside (settings, a gateway's "file") are written without quotes,
// backslashes and control bytes; names of interfaces are plain by the platform's contract.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/uif.h"
#include "qel/qel_cjson.h"
#include "qel/qel_text.h"

// ---- Common head (qel_json_port.cpp)

// Writes {"mac":"<system MAC>","cmd":"<cmd>","subcmd":"<subcmd>","data": as the answers share it.
void qel_json_head(qel_text& out, const char* cmd, const char* subcmd);
// The same for an "update", with the brace that opens "data".
void qel_json_update_head(qel_text& out, const char* subcmd);

// ---- Answers (qel_json_answer.cpp)

// The probe answer. Returns its length plus one: the closing NUL is sent with it.
size_t qel_json_probe_answer(qel_text& out, const cJSON* msg, int32_t ntick);
// The echo of a ping; `data_text` is JSON text.
size_t qel_json_pong(qel_text& out, const char* data_text);
// The "sys_info" report; a negative `result` reports the failure.
size_t qel_json_sys_info(qel_text& out, int result);
// The answers to a configuration chunk and to a firmware chunk; `file` null prints nothing, and of
// other texts what is plain.
size_t qel_json_conf_download(qel_text& out, int32_t index, const char* file, int32_t state);
size_t qel_json_firm_download(qel_text& out, int32_t index, const char* file, int32_t state);

// ---- Port reports (qel_json_port.cpp); each sets the device record's online_ports to 0

size_t qel_json_port_status(qel_text& out);                    // "ports_info"
size_t qel_json_port_pos(qel_text& out);                       // "ports_pos"
size_t qel_json_port_get_config(qel_text& out, int32_t page);  // "ports_conf", 20 ports a page
size_t qel_json_port_link(qel_text& out);                      // "ports_link"
size_t qel_json_ports_states(qel_text& out, int32_t page);     // "ports_stats", 20 ports a page
size_t qel_json_port_get_poeconf(qel_text& out);               // "ports_poe_conf", asks "poe"

// Names by index; an index outside the table gives "AN", or "G" for media.
const char* qel_json_speed_cfg_name(int32_t index);
const char* qel_json_media_name_by_index(int32_t index);
// The media name of a port, from its class, medium and highest speed.
const char* qel_json_port_media_name(const struct uif* uif);

// ---- Typed envelopes (qel_json_envelope.cpp)
//
// Each takes the next packet id. Each returns the length plus one: the closing NUL is sent too.

// One {"key":"value"} entry of a port_set message.
struct qel_json_pair {
  const char* key;
  const char* value;
};

// `data` and `ack` are JSON text, or null to leave the key out.
size_t qel_json_pkt(qel_text& out, const char* type, const char* data, const char* ack);
// `request` is the message being answered, or null: then reqid is 0 and there is no ack.
size_t qel_json_pkt_req(qel_text& out, const char* type, const char* data, const cJSON* request);

size_t qel_json_update_empty(qel_text& out, const cJSON* request);
size_t qel_json_joinresp(qel_text& out, const cJSON* request);
size_t qel_json_ping(qel_text& out);
size_t qel_json_pingresp(qel_text& out, const cJSON* request);
size_t qel_json_port_set(qel_text& out, std::span<const qel_json_pair> pairs);
size_t qel_json_device_get(qel_text& out, const char* data);
size_t qel_json_port_setresp(qel_text& out, const char* data, const cJSON* request);
size_t qel_json_upgrade_req(qel_text& out, int32_t index, int32_t success);

// ---- Join and update (qel_json_status.cpp)

// Key/value status of at most four ports that were not reported in this cycle yet. Returns 0.
int qel_json_port_status_limit_cnt(qel_text& out);
size_t qel_json_join_payload(qel_text& out);
size_t qel_json_update_config_payload(qel_text& out);
size_t qel_json_update_ports_payload(qel_text& out);
size_t qel_json_update_status_payload(qel_text& out);
size_t qel_json_uplink_totals_payload(qel_text& out);
size_t qel_json_joinreq_msg(qel_text& out, const cJSON* request);
size_t qel_json_update_config_msg(qel_text& out, const cJSON* request);
size_t qel_json_update_ports_msg(qel_text& out, const cJSON* request);
size_t qel_json_update_status_msg(qel_text& out, const cJSON* request);

// The link-speed code of a speed in Mbit/s, and the role code of an interface; one without a record
// is disabled, mirrored or of no role. Return 0.
int qel_mono_speed_code(int32_t speed, int* out_code);
int qel_mono_port_role(const struct uif* uif, int* out_role);
