// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_gw.h"

#include <cstring>

#include "platform/sys.h"
#include "qel/qel_client.h"
#include "qel/qel_cmd.h"
#include "qel/qel_console.h"
#include "qel/qel_send.h"
#include "qel/qel_table.h"

namespace {

constexpr char kSource[] = "qel/qel_gw";
constexpr int32_t kGatewaySilence = 11;   // seconds until a gateway is offline
constexpr int32_t kClientLifetime = 301;  // seconds until a client is gone

// Seconds since `then`, as a signed difference: the uptime wraps.
int32_t elapsed(uint32_t now, uint32_t then) {
  return static_cast<int32_t>(now - then);
}

// Names are compared as they are kept: cut to the entry's size.
bool same_name(const qel_gw& entry, const char* name) {
  return std::strncmp(entry.name, name, kQelGatewayNameSize - 1) == 0;
}

void report_client(const struct uif* uif) {
  static qel_text_area<kQelMessageSize> area;
  qel_text& text = area.begin();
  qel_json_ports_client(uif, text);
  qel_gw_trap_text(text);
}

}  // namespace

std::array<qel_gw, kQelGateways> g_qel_gw;

qel_gw* qel_gw_lookup(const char* name) {
  const char* wanted = name != nullptr ? name : "";
  for (qel_gw& entry : g_qel_gw) {
    if (entry.last_seen != 0 && same_name(entry, wanted)) {
      return &entry;
    }
  }
  for (qel_gw& entry : g_qel_gw) {
    if (entry.active == 0) {
      entry = qel_gw{};
      std::memcpy(entry.name, wanted, strnlen(wanted, kQelGatewayNameSize - 1));
      return &entry;
    }
  }
  // A fifth gateway takes over the first entry's address but not its name.
  return g_qel_gw.data();
}

void qel_gw_update(const char* name, int32_t ntick, const qel_link* link) {
  qel_gw* entry = qel_gw_lookup(name);
  entry->active = 1;
  entry->ntick = static_cast<uint32_t>(ntick);
  entry->last_seen = tq_uptime_get();
  entry->link = *link;
}

void qel_gw_offline_check() {
  const uint32_t now = tq_uptime_get();
  for (qel_gw& entry : g_qel_gw) {
    if (entry.active != 0 && elapsed(now, entry.last_seen) >= kGatewaySilence) {
      entry.active = 0;
      if (qel_debug(kDebugGateway)) {
        qel_console("gw [%s] become offline\n", entry.name);
      }
    }
  }
}

int qel_gw_trap(const char* text, size_t length) {
  for (const qel_gw& entry : g_qel_gw) {
    if (entry.active == 0) {
      continue;
    }
    qel_cmd_send(&entry.link, text, length);
    if (qel_debug(kDebugGateway)) {
      qel_console("qel_gw_trap name[%s] buf[%s] \n", entry.name, text);
    }
  }
  return 0;
}

int qel_gw_trap_text(const qel_text& text) {
  return qel_gw_trap(text.c_str(), text.length());
}

void qel_port_client_timer() {
  const uint32_t now = tq_uptime_get();
  qel_table_walk(kSource, __LINE__, __func__, [now](struct uif* uif, qel_port* port) {
    if (port->client_time != 0 && elapsed(now, port->client_time) >= kClientLifetime) {
      port->client_time = 0;
      report_client(uif);
    }
    return true;
  });
}

void qel_port_restart_timer() {
  qel_table_walk(kSource, __LINE__, __func__, [](struct uif* uif, qel_port* port) {
    if (port->restart_left != 0 && --port->restart_left == 0) {
      qel_cmd_port_enable_update(uif->name, 1);
    }
    return true;
  });
}

void qel_gw_timer() {
  qel_gw_offline_check();
  qel_port_client_timer();
  qel_port_restart_timer();
}

int qel_if_status(struct uclient* client, const struct uclient_msg* msg) {
  constexpr int kTraceLine = 38;  // as the trace has always told it
  const struct uif* uif = uclient_if_status(client, msg);
  if (uif == nullptr) {
    return 0;
  }
  if (qel_debug(kDebugGateway)) {
    qel_console("%s:%d  uif->name %s speed_conf=%d \r\n", __func__, kTraceLine, uif->name,
                uif->speed_conf);
  }
  if (qel_port_of(uif) != nullptr) {
    report_client(uif);
  }
  return 0;
}
