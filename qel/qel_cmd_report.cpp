// SPDX-License-Identifier: Apache-2.0
//
// Handlers that read: the probe and the port reports.
#include "platform/uif.h"
#include "qel/qel_client.h"
#include "qel/qel_cmd.h"
#include "qel/qel_gw.h"
#include "qel/qel_json.h"
#include "qel/qel_mono.h"
#include "qel/qel_send.h"
#include "qel/qel_stats.h"
#include "qel/qel_table.h"

namespace {

constexpr char kSource[] = "qel/qel_cmd";
constexpr int kPortsPerPage = 20;

qel_text& send_area() {
  static qel_text_area<kQelMessageSize> area;
  return area.begin();
}

int send_report(const qel_link* link, size_t (*build)(qel_text&)) {
  qel_text& text = send_area();
  build(text);
  return qel_cmd_send_text(link, text);
}

// One message a page. A switch of fewer than 20 ports gets page 0, one without ports included.
int send_pages(const qel_link* link, size_t (*build)(qel_text&, int32_t)) {
  const int ports = g_port_max;
  const int pages = ports < kPortsPerPage ? 1 : (ports + kPortsPerPage - 1) / kPortsPerPage;
  for (int32_t page = 0; page < pages; ++page) {
    qel_text& text = send_area();
    build(text, page);
    qel_cmd_send_text(link, text);
  }
  return 0;
}

uint64_t counter(const cJSON* element, const char* name) {
  return static_cast<uint64_t>(cJSON_GetObjectItemLongIntDef(element, name, 0));
}

void store_row(const qel_stats_row& row) {
  qel_port* port = qel_port_of(uif_get_by_name(row.name));
  if (port != nullptr) {
    port->tx_sum = row.tx_sum;
    port->rx_sum = row.rx_sum;
    port->tx_rate = row.tx_rate;
    port->rx_rate = row.rx_rate;
  }
}

// Stores what the module tells; a port that it does not name keeps its last values.
void refresh_counters() {
  char* reply = qel_mono_reply_area();
  qel_mono_port_statistic_get_all(reply);
  if (qel_stats_read(reply, store_row)) {
    return;
  }
  const qel_cjson_tree tree(cJSON_Parse(reply));
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, cJSON_GetObjectItem(tree.get(), "data")) {
    const char* name = cJSON_GetObjectItemString(element, "name");
    qel_port* port = name != nullptr ? qel_port_of(uif_get_by_name(name)) : nullptr;
    if (port == nullptr) {
      continue;
    }
    port->tx_sum = counter(element, "tx_sum");
    port->rx_sum = counter(element, "rx_sum");
    port->tx_rate = counter(element, "tx_rate");
    port->rx_rate = counter(element, "rx_rate");
  }
}

}  // namespace

int qel_cmd_handle_probe(qel_link* link, const cJSON* root, const char* /*text*/) {
  const cJSON* data = cJSON_GetObjectItem(root, "data");
  if (data == nullptr) {
    return 0;
  }
  const int32_t ntick = cJSON_GetObjectItemInt(data, "ntick");
  qel_gw_update(cJSON_GetObjectItemString(root, "mac"), ntick, link);
  qel_text& text = send_area();
  const size_t length = qel_json_probe_answer(text, root, ntick);
  // The builder's length counts the closing NUL, and so it goes out with the answer.
  return qel_cmd_send(link, text.c_str(), length);
}

int qel_cmd_handle_ports_info(qel_link* link, const cJSON* /*root*/, const char* /*text*/) {
  send_report(link, qel_json_port_status);
  return send_report(link, qel_json_port_pos);
}

int qel_cmd_handle_ports_conf(qel_link* link, const cJSON* /*root*/, const char* /*text*/) {
  return send_pages(link, qel_json_port_get_config);
}

int qel_cmd_handle_ports_link(qel_link* link, const cJSON* /*root*/, const char* /*text*/) {
  return send_report(link, qel_json_port_link);
}

int qel_cmd_handle_ports_poe(qel_link* link, const cJSON* /*root*/, const char* /*text*/) {
  return send_report(link, qel_json_port_get_poeconf);
}

int qel_cmd_handle_ports_client(qel_link* link, const cJSON* /*root*/, const char* /*text*/) {
  qel_table_walk(kSource, __LINE__, __func__, [link](struct uif* uif, qel_port*) {
    qel_text& text = send_area();
    qel_json_ports_client(uif, text);
    qel_cmd_send_text(link, text);
    return true;
  });
  return 0;
}

int qel_cmd_handle_ports_stats(qel_link* link, const cJSON* /*root*/, const char* /*text*/) {
  refresh_counters();
  return send_pages(link, qel_json_ports_states);
}
