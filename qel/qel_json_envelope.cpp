// SPDX-License-Identifier: Apache-2.0
//
// The typed message form: two envelopes and the messages built on them. The join and update
// messages, whose payloads are longer, stand in qel_json_status.cpp.
//
// The two envelopes differ in the order of "pktid" and "devid"; the peers rely on both orders.
#include "qel/qel_json.h"
#include "qel/qel_os.h"
#include "qel/qel_table.h"

namespace {

constexpr size_t kPayloadSize = 128;  // of a payload that only holds numbers

void put_member(qel_text& out, const char* name, const char* json) {
  if (json != nullptr) {
    out.printf(",\"%s\":", name);
    out.put(json);
  }
}

// The closing NUL is counted, and so sent with the message.
size_t finish(qel_text& out) {
  out.put('}');
  return out.length() + 1;
}

void put_time(qel_text& out) {
  out.put("{\"time\":");
  out.put_int(qel_os_time());
  out.put('}');
}

}  // namespace

size_t qel_json_pkt(qel_text& out, const char* type, const char* data, const char* ack) {
  out.put("{\"type\":\"");
  out.put(type);
  out.printf("\",\"pktid\":\"%d\"", g_qel_dev.pktid++);
  out.printf(",\"devid\":\"%s\"", g_qel_dev.devid);
  put_member(out, "data", data);
  put_member(out, "ack", ack);
  return finish(out);
}

size_t qel_json_pkt_req(qel_text& out, const char* type, const char* data, const cJSON* request) {
  const cJSON* ack = cJSON_GetObjectItem(request, "ack");
  out.put("{\"type\":\"");
  out.put(type);
  out.printf("\",\"devid\":\"%s\"", g_qel_dev.devid);
  out.printf(",\"pktid\":\"%d\"", g_qel_dev.pktid++);
  out.put(",\"reqid\":");
  out.put_int(cJSON_GetObjectItemLongIntDef(request, "reqid", 0));
  put_member(out, "data", data);
  if (ack != nullptr) {
    const qel_cjson_text printed(cJSON_Print(ack));
    put_member(out, "ack", printed.get());
  }
  return finish(out);
}

size_t qel_json_update_empty(qel_text& out, const cJSON* request) {
  return qel_json_pkt_req(out, "update", "{}", request);
}

size_t qel_json_joinresp(qel_text& out, const cJSON* request) {
  return qel_json_pkt_req(out, "joinresp", "{}", request);
}

size_t qel_json_ping(qel_text& out) {
  char area[kPayloadSize] = {};
  qel_text ack(area, sizeof area);
  put_time(ack);
  return qel_json_pkt(out, "ping", "{}", ack.c_str());
}

size_t qel_json_pingresp(qel_text& out, const cJSON* request) {
  char area[kPayloadSize] = {};
  qel_text data(area, sizeof area);
  put_time(data);
  return qel_json_pkt_req(out, "pingresp", data.c_str(), request);
}

size_t qel_json_port_set(qel_text& out, std::span<const qel_json_pair> pairs) {
  static qel_text_area<kQelMessageSize> area;
  qel_text& data = area.begin();
  data.put('[');
  bool first = true;
  for (const qel_json_pair& pair : pairs) {
    if (!first) {
      data.put(',');
    }
    first = false;
    data.put("{\"");
    data.put(pair.key);
    data.put("\":\"");
    data.put(pair.value);
    data.put("\"}");
  }
  data.put(']');
  return qel_json_pkt(out, "port_set", data.c_str(), nullptr);
}

size_t qel_json_device_get(qel_text& out, const char* data) {
  return qel_json_pkt(out, "device_get", data, nullptr);
}

size_t qel_json_port_setresp(qel_text& out, const char* data, const cJSON* request) {
  return qel_json_pkt_req(out, "port_setresp", data, request);
}

size_t qel_json_upgrade_req(qel_text& out, int32_t index, int32_t success) {
  char area[kPayloadSize] = {};
  qel_text data(area, sizeof area);
  data.put("{\"index\":");
  data.put_int(index);
  data.put(",\"success\":");
  data.put_int(success);
  data.put('}');
  return qel_json_pkt(out, "upgrade_req", data.c_str(), nullptr);
}
