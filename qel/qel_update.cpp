// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_update.h"

#include "qel/qel_console.h"
#include "qel/qel_json.h"
#include "qel/qel_os.h"
#include "qel/qel_send.h"
#include "qel/qel_table.h"

namespace {

constexpr char kSource[] = "qel/qel_cmd";
constexpr int32_t kSpacing = 10;     // seconds between two joins or updates
constexpr int kStatusPagesMax = 10;  // ports that do not fit are left out of the cycle

bool too_soon(int32_t now) {
  return static_cast<int32_t>(static_cast<uint32_t>(now) -
                              static_cast<uint32_t>(g_qel_dev.join_time)) < kSpacing;
}

int32_t now_seconds() {
  return static_cast<int32_t>(qel_os_time());
}

using builder = size_t (*)(qel_text&, const cJSON*);

// `label` is how the trace begins: the pages have always been told with one blank more.
void send_message(const qel_link* link, builder build, const cJSON* request, const char* label) {
  static qel_text_area<kQelMessageSize> area;
  qel_text& text = area.begin();
  const size_t length = build(text, request);
  if (qel_debug(kDebugGateway)) {
    qel_stdout("%s%d buf=%s \r\n", label, static_cast<int>(length), text.c_str());
  }
  qel_cmd_send(link, text.c_str(), length);
}

}  // namespace

int qel_cmd_update_info_init() {
  g_qel_dev.online_ports = 0;
  qel_table_walk(kSource, __LINE__, __func__, [](struct uif*, qel_port* port) {
    port->reported = 0;
    return true;
  });
  return 0;
}

int qel_cmd_get_port_update_info() {
  int all = 1;
  qel_table_walk(kSource, __LINE__, __func__, [&all](struct uif*, qel_port* port) {
    all = port->reported != 0 ? 1 : 0;
    return all == 1;
  });
  return all;
}

int qel_cmd_send_joinreq(const qel_link* link, const cJSON* request) {
  const int32_t now = now_seconds();
  if (too_soon(now)) {
    return 0;
  }
  send_message(link, qel_json_joinreq_msg, request, "n =");
  g_qel_dev.join_time = now;
  return 0;
}

int qel_cmd_send_joinreq_once(const qel_link* link, const cJSON* request) {
  qel_cmd_send_joinreq(link, request);
  return 0;
}

int qel_cmd_send_update(const qel_link* link, const cJSON* request) {
  const int32_t now = now_seconds();
  if (too_soon(now)) {
    return 0;
  }
  qel_cmd_update_info_init();
  for (int page = 0; page < kStatusPagesMax && qel_cmd_get_port_update_info() == 0; ++page) {
    send_message(link, qel_json_update_status_msg, nullptr, "n = ");
  }
  send_message(link, qel_json_update_config_msg, request, "n =");
  g_qel_dev.join_time = now;
  return 0;
}
