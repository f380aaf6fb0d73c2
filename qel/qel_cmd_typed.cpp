// SPDX-License-Identifier: Apache-2.0
//
// Handlers of the typed message form. They are complete, and no command table names them.
#include "qel/qel_cmd.h"
#include "qel/qel_console.h"
#include "qel/qel_json.h"
#include "qel/qel_mono.h"
#include "qel/qel_req.h"
#include "qel/qel_send.h"

namespace {

constexpr int kLinePortSet = 1009;  // as the diagnostic has always told it

qel_text& send_area() {
  static qel_text_area<kQelMessageSize> area;
  return area.begin();
}

// The printed "data" of a message that names a device; null when either is missing.
qel_cjson_text device_data(const cJSON* root) {
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  if (cJSON_GetObjectItemString(root, "devid") == nullptr || data == nullptr) {
    return nullptr;
  }
  return qel_cjson_text(cJSON_Print(data));
}

}  // namespace

int qel_cmd_handle_pingresp(qel_link* link, const cJSON* root, const char* /*text*/) {
  qel_text& text = send_area();
  const size_t length = qel_json_pingresp(text, root);
  return qel_cmd_send(link, text.c_str(), length);
}

int qel_cmd_handle_reqid(qel_link* /*link*/, const cJSON* root, const char* /*text*/) {
  const int32_t reqid = cJSON_GetObjectItemInt(root, "reqid");
  // A negative id goes in with its sign in the upper half, and so finds nothing.
  return qel_req_answer(static_cast<uint64_t>(static_cast<int64_t>(reqid)), root);
}

int qel_cmd_handle_none(qel_link* /*link*/, const cJSON* /*root*/, const char* /*text*/) {
  return 0;
}

int qel_cmd_handle_port_set(qel_link* /*link*/, const cJSON* root, const char* /*text*/) {
  const qel_cjson_text data = device_data(root);
  if (data == nullptr) {
    return -1;
  }
  char* reply = qel_mono_reply_area();
  qel_mono_port_config_set_all(data.get(), reply);
  qel_mono_poe_port_config_set(data.get(), reply);
  qel_stdout("%s,%d temptest=%s, outbuf = %s \r\n", __func__, kLinePortSet, data.get(), reply);
  // Built and deliberately not sent.
  qel_json_port_setresp(send_area(), reply, root);
  return 0;
}

int qel_cmd_handle_port_reboot(qel_link* /*link*/, const cJSON* root, const char* /*text*/) {
  const qel_cjson_text data = device_data(root);
  if (data == nullptr) {
    return -1;
  }
  qel_mono_port_reboot_set_all(data.get(), nullptr);
  qel_mono_poe_port_reboot(data.get(), nullptr);
  return 0;
}
