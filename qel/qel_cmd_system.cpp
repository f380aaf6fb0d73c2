// SPDX-License-Identifier: Apache-2.0
//
// Handlers that concern the switch as a whole: keep-alive, address, clock, restart, name.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/sys.h"
#include "qel/qel_cmd.h"
#include "qel/qel_console.h"
#include "qel/qel_json.h"
#include "qel/qel_mono.h"
#include "qel/qel_netif.h"
#include "qel/qel_restart.h"
#include "qel/qel_send.h"
#include "qel/qel_shell.h"
#include "qel/qel_table.h"

namespace {

constexpr int kLinePing = 441;  // as the diagnostic has always told it
constexpr size_t kBuildSize = 8192;

qel_text& send_area() {
  static qel_text_area<kQelMessageSize> area;
  return area.begin();
}

int send_pong(const qel_link* link, const char* data_text) {
  qel_text& text = send_area();
  qel_json_pong(text, data_text);
  return qel_cmd_send_text(link, text);
}

int send_sys_info(const qel_link* link, int result) {
  qel_text& text = send_area();
  qel_json_sys_info(text, result);
  return qel_cmd_send_text(link, text);
}

// Whether a query's payload is whole; one that its buffer cannot hold is told, and not sent.
bool is_whole(const qel_text& payload, const char* function, int line) {
  if (payload.overflowed()) {
    qel_console("[%s,%d] len[%d] argc error \n", function, line,
                static_cast<int>(payload.length()));
  }
  return !payload.overflowed();
}

// Asks "zebra" to give the management interface another address. `wanted` is plain text; the module
// refuses a text that is no address, and the report shows the address in force.
void set_address(const char* current, const char* wanted, int32_t mask) {
  static qel_text_area<kBuildSize> area;
  qel_text& payload = area.begin();
  payload.put("[{\"manage_L3IF\":\"");
  payload.put(kQelManagementInterface);
  payload.put("\",\"old_ip_address\": \"");
  payload.put(current);
  payload.put('/');
  payload.put_int(qel_netif_prefix_get(kQelManagementInterface));
  payload.put("\", \"ip_address\":\"");
  payload.put(wanted);
  payload.put('/');
  payload.put_int(mask);
  // Always method 0, a fixed address, whatever "dhcp" asked for.
  payload.put("\", \"method\":0, \"gateway\":\"\"}]");
  if (is_whole(payload, "qel_cmd_handle_sys_ip", __LINE__)) {
    qel_mono_l3if_set(payload.c_str(), qel_mono_reply_area());
  }
}

}  // namespace

int qel_cmd_handle_pingnew(qel_link* link, const cJSON* root, const char* /*text*/) {
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  if (data == nullptr) {
    return 0;
  }
  // The layout of the formatted printer is part of the answer.
  static qel_text_area<kBuildSize> area;
  qel_text& flat = area.begin();
  if (qel_cjson_print_flat(flat, data) && !flat.overflowed()) {
    return send_pong(link, flat.c_str());
  }
  const qel_cjson_text printed(cJSON_Print(data));
  if (printed == nullptr) {
    qel_console("%s,%d json print err\r\n", __func__, kLinePing);
    return -1;
  }
  return send_pong(link, printed.get());
}

int qel_cmd_handle_sys_ip(qel_link* link, const cJSON* root, const char* /*text*/) {
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  const char* wanted = cJSON_GetObjectItemString(data, "sys_ip");
  if (wanted == nullptr) {
    return send_sys_info(link, -1);
  }
  const int32_t mask = cJSON_GetObjectItemIntDef(data, "sys_mask", 0);
  char current[kQelIpTextSize] = {};
  qel_netif_ip_get(kQelManagementInterface, current);
  if (std::strcmp(current, wanted) == 0) {
    // Nothing to change, and deliberately nothing to answer.
    qel_console("Set the same ip[%s] ipstr[%s]\n", current, wanted);
    return 0;
  }
  if (qel_mono_text_ok(__func__, __LINE__, wanted)) {
    set_address(current, wanted, mask);
  }
  return send_sys_info(link, 0);
}

int qel_cmd_handle_sys_time(qel_link* link, const cJSON* root, const char* /*text*/) {
  const char* timestamp = cJSON_GetObjectItemString(cJSON_GetObjectItem(root, "data"), "timestamp");
  if (timestamp != nullptr) {
    char command[64];
    std::snprintf(command, sizeof command, "date -s \"@%ld\"", std::atol(timestamp));
    qel_shell_run(command);
  }
  return send_sys_info(link, 0);
}

int qel_cmd_handle_sys_reboot(qel_link* /*link*/, const cJSON* /*root*/, const char* /*text*/) {
  qel_restart_order();
  return 0;
}

int qel_cmd_handle_config_reset(qel_link* /*link*/, const cJSON* /*root*/, const char* /*text*/) {
  sys_restore_default();
  qel_restart_order();
  return 0;
}

int qel_sys_active(qel_link* /*link*/, const cJSON* root, const char* /*text*/) {
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  if (data == nullptr) {
    return -1;
  }
  g_qel_dev.sys_active = cJSON_GetObjectItemInt(data, "sys_active");
  nvram_set_int("qel_sys_active", g_qel_dev.sys_active);
  return 0;
}

int qel_cmd_handle_name(qel_link* /*link*/, const cJSON* root, const char* /*text*/) {
  const char* name = cJSON_GetObjectItemString(cJSON_GetObjectItem(root, "data"), "name");
  // What every later answer would carry must not be able to end its place there.
  if (name == nullptr || !qel_mono_text_ok(__func__, __LINE__, name)) {
    return 0;
  }
  static qel_text_area<kBuildSize> area;
  qel_text& payload = area.begin();
  payload.put("{\"descr\":\"");
  payload.put(name);
  payload.put("\"}");
  if (is_whole(payload, __func__, __LINE__)) {
    qel_mono_product_description_set(payload.c_str(), qel_mono_reply_area());
  }
  return 0;
}
