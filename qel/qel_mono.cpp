// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_mono.h"

#include <cstring>
#include <string_view>

#include "platform/sys.h"
#include "qel/qel_console.h"
#include "qel/qel_table.h"
#include "qel/qel_text.h"

namespace {

constexpr char kSource[] = "qel/qel_mono";
constexpr size_t kQuerySize = 65536;

int send_query(const char* form, const char* payload, const char* module, const char* command,
               char* reply) {
  static qel_text_area<kQuerySize> area;
  qel_text& text = area.begin();
  text.put("{\"mdl\":\"");
  text.put(module);
  text.put("\",\"cmd\":\"");
  text.put(command);
  text.put('"');
  if (payload != nullptr) {
    text.put(",\"");
    text.put(form);
    text.put("\":");
    text.put(payload);
  }
  text.put('}');
  if (text.overflowed()) {
    qel_console("[%s,%d] len[%d] argc error \n", __func__, __LINE__,
                static_cast<int>(text.length()));
    return 0;
  }
  jclient_query(text.c_str(), reply);
  return 0;
}

}  // namespace

bool qel_mono_text_ok(const char* function, int line, const char* text) {
  if (qel_text_is_plain(text)) {
    return true;
  }
  // Not the text itself: the console would take its control bytes for its own.
  qel_console("%s,%d unsafe text \r\n", function, line);
  return false;
}

char* qel_mono_reply_area() {
  static char reply[JCLIENT_REPLY_SIZE];
  // All of it: a reply that is passed on in two frames takes bytes from behind the text, and those
  // must not be what another module once answered.
  std::memset(reply, 0, sizeof reply);
  return reply;
}

int qel_mono_query_data(const char* payload, const char* module, const char* command, char* reply) {
  return send_query("data", payload, module, command, reply);
}

int qel_mono_query_config(const char* payload, const char* module, const char* command,
                          char* reply) {
  return send_query("config", payload, module, command, reply);
}

int qel_mono_port_config_set_all(const char* payload, char* reply) {
  return qel_mono_query_data(payload, "mono", "qel_port_config_set_all", reply);
}

int qel_mono_poe_port_config_set(const char* payload, char* reply) {
  return qel_mono_query_data(payload, "poe", "poe_qel_port_config_set", reply);
}

int qel_mono_port_enable_set(const char* payload, char* reply) {
  return qel_mono_query_data(payload, "mono", "qel_port_enable_set", reply);
}

int qel_mono_port_speed_set(const char* payload, char* reply) {
  return qel_mono_query_data(payload, "mono", "qel_port_speed_set", reply);
}

int qel_mono_port_reboot_set_all(const char* payload, char* reply) {
  return qel_mono_query_data(payload, "mono", "qel_port_reboot_set_all", reply);
}

int qel_mono_poe_port_reboot(const char* payload, char* reply) {
  return qel_mono_query_data(payload, "poe", "poe_qel_port_reboot", reply);
}

int qel_mono_poe_port_config_get_all(char* reply) {
  return qel_mono_query_data(nullptr, "poe", "poe_qel_port_config_get_all", reply);
}

int qel_mono_poe_alarm_info_get(char* reply) {
  return qel_mono_query_data(nullptr, "poe", "poe_qel_alarm_info_get", reply);
}

int qel_mono_port_basic_statistic_get_all(char* reply) {
  return qel_mono_query_data(nullptr, "statistics", "port_basic_statistic_get_all", reply);
}

int qel_mono_port_statistic_get_all(char* reply) {
  return qel_mono_query_data(nullptr, "statistics", "port_statistic_qel_get_all", reply);
}

int qel_mono_port_statistic_dot3_get_all(char* reply) {
  return qel_mono_query_data(nullptr, "statistics", "port_statistic_qel_dot3_get_all", reply);
}

int qel_mono_mstp_alarm_info_get(char* reply) {
  return qel_mono_query_data(nullptr, "mstp", "mstp_qel_alarm_info_get", reply);
}

int qel_mono_llpp_port_config_get_all(char* reply) {
  return qel_mono_query_data(nullptr, "llpp", "qel_llpp_port_config_get_all", reply);
}

int qel_mono_l3if_set(const char* payload, char* reply) {
  return qel_mono_query_config(payload, "zebra", "manage_L3IF_info_set", reply);
}

int qel_mono_l3if_get(char* reply) {
  return qel_mono_query_config(nullptr, "zebra", "manage_L3IF_info_get", reply);
}

int qel_mono_product_description_set(const char* payload, char* reply) {
  return qel_mono_query_config(payload, "mono", "product_description_set", reply);
}

int qel_mono_get_port_count() {
  int count = 0;
  for (const listnode* node = g_uif_list->head; node != nullptr; node = node->next) {
    if (node->data == nullptr) {
      zlog_assert_failed("(node)->data != ((void *)0)", kSource, __LINE__, __func__);
    }
    if (uif_index_is_port(static_cast<const struct uif*>(node->data)->index) != 0) {
      ++count;
    }
  }
  return count;
}

int qel_mono_update_ports_blocked(const cJSON* reply) {
  qel_table_walk(kSource, __LINE__, __func__, [](struct uif*, qel_port* port) {
    port->blocked = 0;
    return true;
  });
  const char* ports = cJSON_GetObjectItemString(reply, "ports");
  if (ports == nullptr) {
    return 0;
  }
  std::string_view rest(ports);
  while (!rest.empty()) {
    const size_t end = std::min(rest.find(' '), rest.size());
    const std::string_view name = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    char text[UIF_NAME_SIZE] = {};
    if (name.empty() || name.size() >= sizeof text) {
      continue;
    }
    std::memcpy(text, name.data(), name.size());
    qel_port* port = qel_port_of(uif_lookup_by_name(text));
    if (port != nullptr) {
      port->blocked = 1;
    }
  }
  return 0;
}

int qel_mono_update_portinfo_all(const char* payload, char* reply) {
  const int have_poe = nvram_get_int("have_poe");
  qel_mono_query_data(payload, "mono", "qel_common_update_mono_portinfo", reply);
  qel_mono_query_data(payload, "llpp", "qel_common_update_llpp_portinfo", reply);
  qel_mono_query_data(payload, "stp", "qel_common_update_stp_portinfo", reply);
  qel_mono_query_data(payload, "lldp", "qel_common_update_lldp_portinfo", reply);
  if (have_poe != 0) {
    // PoE settings go to "lldp" as well: it is the module that hands them on.
    qel_mono_query_data(payload, "lldp", "qel_common_update_poe_portinfo", reply);
  }
  return 0;
}
