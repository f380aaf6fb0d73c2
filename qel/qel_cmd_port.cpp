// SPDX-License-Identifier: Apache-2.0
//
// Handlers that change ports. None touches hardware: each becomes one or more module queries.
#include <array>
#include <cstring>

#include "platform/uif.h"
#include "qel/qel_cmd.h"
#include "qel/qel_console.h"
#include "qel/qel_mono.h"
#include "qel/qel_send.h"
#include "qel/qel_table.h"

namespace {

// The position is the code that the module "mono" takes.
constexpr std::array kSpeedCodes = {"AN",     "10M",    "10M-H", "10M-F", "100M",
                                    "100M-H", "100M-F", "1G",    "1G-F",  "2.5G",
                                    "5G",     "10G",    "25G",   "40G",   "100G"};
constexpr int kSpeedUnknown = 15;
static_assert(kSpeedCodes.size() == kSpeedUnknown);

// Line numbers as the diagnostics have always told them.
constexpr int kLinePortsConf = 513;
constexpr int kLineEnable = 534;
constexpr int kLineSpeed = 558;
constexpr int kLineRestart = 629;

// The first member of "data" names the port by its key; further members are ignored.
const cJSON* first_member(const cJSON* root) {
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  return data != nullptr ? data->child : nullptr;
}

const char* text_or_null(const char* text) {
  return text != nullptr ? text : "(null)";
}

using wrapper = int (*)(const char* payload, char* reply);

// `function` is whose payload it is, for the line about a name that no query may hold.
int send_port_value(const char* function, const char* port_name, const char* member, int32_t value,
                    wrapper send) {
  if (!qel_mono_text_ok(function, __LINE__, port_name)) {
    return 0;
  }
  static qel_text_area<kQelMessageSize> area;
  qel_text& payload = area.begin();
  payload.put("{\"port\":\"");
  payload.put(port_name);
  payload.put("\",\"");
  payload.put(member);
  payload.put("\":");
  payload.put_int(value);
  payload.put('}');
  if (payload.overflowed()) {
    qel_console("[%s,%d] len[%d] argc error \n", function, __LINE__,
                static_cast<int>(payload.length()));
    return 0;
  }
  send(payload.c_str(), qel_mono_reply_area());
  return 0;
}

}  // namespace

int qel_cmd_port_enable_update(const char* port_name, int32_t enable) {
  if (port_name == nullptr) {
    qel_console("%s,%d null \r\n", __func__, kLineEnable);
    return 0;
  }
  return send_port_value(__func__, port_name, "enable", enable, qel_mono_port_enable_set);
}

int qel_cmd_port_speed_update(const char* port_name, const char* speed_name) {
  if (port_name == nullptr) {
    qel_console("%s,%d null \r\n", __func__, kLineSpeed);
    return 0;
  }
  return send_port_value(__func__, port_name, "speed", qel_port_speed_code(speed_name),
                         qel_mono_port_speed_set);
}

int qel_port_speed_code(const char* name) {
  int code = 0;
  for (const char* known : kSpeedCodes) {
    if (name != nullptr && std::strcmp(known, name) == 0) {
      return code;
    }
    ++code;
  }
  return kSpeedUnknown;
}

int qel_cmd_handle_port_enable(qel_link* /*link*/, const cJSON* root, const char* /*text*/) {
  const cJSON* member = first_member(root);
  if (member != nullptr) {
    // Whatever number it is: the module decides what it means.
    qel_cmd_port_enable_update(member->string, member->valueint);
  }
  return 0;
}

int qel_cmd_handle_port_speed(qel_link* /*link*/, const cJSON* root, const char* /*text*/) {
  const cJSON* member = first_member(root);
  if (member != nullptr) {
    qel_cmd_port_speed_update(member->string, cJSON_GetStringValue(member));
  }
  return 0;
}

int qel_cmd_handle_port_restart(qel_link* /*link*/, const cJSON* root, const char* /*text*/) {
  const cJSON* member = first_member(root);
  if (member == nullptr) {
    return 0;
  }
  const char* name = member->string;
  const int32_t delay = member->valueint;
  if (name != nullptr && !qel_mono_text_ok(__func__, __LINE__, name)) {
    return 0;
  }
  // Only the record's countdown brings an interface back: one without a record stays up.
  qel_port* port = qel_port_of(uif_get_by_name(name));
  if (port != nullptr) {
    qel_cmd_port_enable_update(name, 0);
    // Eight bits: 300 seconds are 44, and 0 or 256 leave the port down until it is enabled.
    port->restart_left = static_cast<uint8_t>(delay);
  }
  qel_console("%s,%d string[%s] valueint[%d] \r\n", __func__, kLineRestart, text_or_null(name),
              delay);
  return 0;
}

int qel_cmd_handle_portsconf_set(qel_link* /*link*/, const cJSON* root, const char* /*text*/) {
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  if (data == nullptr) {
    return 0;
  }
  const qel_cjson_text printed(cJSON_Print(data));
  if (printed == nullptr) {
    qel_console("%s,%d json print err\r\n", __func__, kLinePortsConf);
    return -1;
  }
  qel_mono_update_portinfo_all(printed.get(), qel_mono_reply_area());
  return 0;
}

int qel_cmd_handle_qelipc(qel_link* link, const cJSON* root, const char* /*text*/) {
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  if (data == nullptr) {
    return 0;
  }
  const char* module = cJSON_GetObjectItemString(data, "mdl");
  const char* command = cJSON_GetObjectItemString(data, "cmd");
  const cJSON* inner = cJSON_GetObjectItem(data, "data");
  const qel_cjson_text printed(inner != nullptr ? cJSON_Print(inner) : nullptr);
  const bool config = cJSON_GetObjectItemInt(data, "cfg_flag") != 0;
  char* reply = qel_mono_reply_area();
  // A query that names nobody, or nobody that there can be, is sent to nobody; its empty reply goes
  // out all the same.
  if (module != nullptr && command != nullptr && qel_mono_text_ok(__func__, __LINE__, module) &&
      qel_mono_text_ok(__func__, __LINE__, command)) {
    const auto query = config ? qel_mono_query_config : qel_mono_query_data;
    query(printed.get(), module, command, reply);
  }
  return qel_cmd_send(link, reply, std::strlen(reply));
}
