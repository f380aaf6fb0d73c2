// SPDX-License-Identifier: Apache-2.0
//
// The answers to commands that concern the switch as a whole.
#include <cstdlib>

#include "platform/sys.h"
#include "qel/qel_console.h"
#include "qel/qel_devinfo.h"
#include "qel/qel_json.h"
#include "qel/qel_mono.h"
#include "qel/qel_netif.h"
#include "qel/qel_os.h"
#include "qel/qel_table.h"

namespace {

// The method (1: by DHCP) that the module's reply tells; the last element wins, 0 without one.
int dhcp_method() {
  char* reply = qel_mono_reply_area();
  qel_mono_l3if_get(reply);
  const qel_cjson_tree tree(cJSON_Parse(reply));
  int method = 0;
  const cJSON* data = cJSON_GetObjectItem(tree.get(), "data");
  if (cJSON_IsArray(data) == 0) {
    return method;
  }
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, data) {
    const char* text = cJSON_GetObjectItemString(element, "method");
    if (text != nullptr) {
      method = std::atoi(text);
    }
  }
  return method;
}

size_t chunk_answer(qel_text& out, const char* subcmd, int32_t index, const char* file,
                    int32_t state) {
  qel_json_update_head(out, subcmd);
  out.put("\"state\":");
  out.put_int(state);
  out.put(",\"index\":");
  out.put_int(index);
  out.put(",\"file\":\"");
  out.put_plain(file != nullptr ? file : "");
  out.put("\"}}");
  return out.length();
}

}  // namespace

size_t qel_json_probe_answer(qel_text& out, const cJSON* /*msg*/, int32_t ntick) {
  uint8_t mac[6] = {};
  sys_mac_get(mac);
  char address[kQelIpTextSize] = {};
  qel_netif_ip_get(kQelManagementInterface, address);
  qel_json_head(out, "answer", "answer");
  out.put("{\"mac\":\"");
  out.put_mac(mac);
  out.put("\",\"sys_ip\":\"");
  out.put(address);
  out.put("\",\"sys_mask\":");
  out.put_int(qel_netif_prefix_get(kQelManagementInterface));
  out.put(",\"name\":\"");
  out.put_plain(nvram_safe_get("product_description"));
  out.put("\",\"model\":\"");
  out.put(qel_devinfo_value(qel_info::model));
  out.put("\",\"type\":\"switch\",\"uptime\":");
  out.put_int(qel_os_sysinfo_uptime());
  out.put(",\"hw_version\":\"");
  out.put(qel_devinfo_value(qel_info::hw_ver));
  out.put("\",\"sw_version\":\"");
  out.put(qel_devinfo_value(qel_info::version));
  out.put("\",\"active\":1,\"sys_active\":");
  out.put_int(g_qel_dev.sys_active);
  out.put(",\"cpu\":");
  out.put_int(qel_cpu_occupancy_now());
  out.put(",\"mem\":");
  out.put_int(qel_mem_occupancy_now());
  out.put(",\"ntick\":");
  out.put_int(ntick);
  out.put("}}");
  return out.length() + 1;
}

size_t qel_json_pong(qel_text& out, const char* data_text) {
  g_qel_dev.online_ports = 0;
  qel_json_head(out, "pong", "pong");
  out.put(data_text);
  out.put('}');
  return out.length();
}

size_t qel_json_sys_info(qel_text& out, int result) {
  qel_json_update_head(out, "sys_info");
  if (result < 0) {
    out.put("\"ret\":\"failed\"");
  } else {
    const int method = dhcp_method();
    char address[kQelIpTextSize] = {};
    qel_netif_ip_get(kQelManagementInterface, address);
    out.put("\"dhcp\":");
    out.put_int(method);
    out.put(",\"sys_ip\":\"");
    out.put(address);
    out.put("\",\"sys_mask\":");
    out.put_int(qel_netif_prefix_get(kQelManagementInterface));
    out.put(",\"timestamp\":");
    out.put_int(qel_os_time());
  }
  out.put("}}");
  return out.length();
}

size_t qel_json_conf_download(qel_text& out, int32_t index, const char* file, int32_t state) {
  return chunk_answer(out, "config_download", index, file, state);
}

size_t qel_json_firm_download(qel_text& out, int32_t index, const char* file, int32_t state) {
  constexpr int32_t kStateComplete = 3;
  const size_t length = chunk_answer(out, "firm_download", index, file, state);
  if (state == kStateComplete && qel_debug(kDebugFrame)) {
    qel_console("[%s,%d] buf[%s]\n", __func__, __LINE__, out.c_str());
  }
  return length;
}
