// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_client.h"

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "qel/qel_console.h"
#include "qel/qel_json.h"
#include "qel/qel_table.h"

namespace {

struct keyword_row {
  const char* keyword;
  uint8_t code;
};
constexpr std::array kKeywords = {
    keyword_row{"Windows", kQelClientTerminal},
    keyword_row{"J5R", kQelClientSwitch},
    keyword_row{"Switch", kQelClientSwitch},
    keyword_row{"switch", kQelClientSwitch},
};

// Spelt as the peers know it.
constexpr std::array kTypeNames = {"unknow", "switch", "terminal"};

// Abbreviations of the report. The agent tells only switch from not-switch, so that a terminal is
// reported as unknown; the others are the peer's.
constexpr std::array kAbbreviations = {"UN", "SW", "RT", "AP", "PC", "LP", "CP", "PAD", "IPC"};
constexpr size_t kIndexUnknown = 0;
constexpr size_t kIndexSwitch = 1;

const char* state_text(const struct uif* uif, const qel_port* port) {
  if (port->client_time == 0) {
    return "NONE";
  }
  return uif_is_linkup(uif) == 0 || port->lldp_seen == 0 ? "OFF" : "ON";
}

}  // namespace

uint8_t qel_client_type_classify(const char* text) {
  for (const keyword_row& row : kKeywords) {
    if (std::strstr(text, row.keyword) != nullptr) {
      qel_stdout("sysdescr[i].sysdescr = %s \r\n", row.keyword);
      return row.code;
    }
  }
  return kQelClientUnknown;
}

const char* qel_client_type_name(int code) {
  if (code < 0 || static_cast<size_t>(code) >= kTypeNames.size()) {
    return "err";
  }
  return kTypeNames[static_cast<size_t>(code)];
}

size_t qel_json_ports_client(const struct uif* uif, qel_text& out) {
  static constexpr qel_port kNoRecord = {};
  const qel_port* record = qel_port_of(uif);
  const qel_port* port = record != nullptr ? record : &kNoRecord;
  size_t type = kIndexUnknown;
  qel_json_update_head(out, "ports_client");
  out.put('"');
  out.put(uif->name);
  out.put("\":{\"client_state\":\"");
  out.put(state_text(uif, port));
  if (port->client_time != 0) {
    char address[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &port->client_ip, address, sizeof address);
    out.put("\",\"client_mac\":\"");
    out.put(qel_mac_text(port->client_mac));
    out.put("\",\"client_ip\":\"");
    out.put(address);
    type = port->neighbour_type == kQelClientSwitch ? kIndexSwitch : kIndexUnknown;
  } else {
    out.put("\",\"client_mac\":\"\",\"client_ip\":\"");
  }
  out.put("\",\"client_type\":\"");
  out.put(kAbbreviations[type]);
  out.put("\"}}}");
  return out.length();
}

const char* qel_mac_text(const uint8_t mac[6]) {
  static char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2], mac[3],
                mac[4], mac[5]);
  return buffer;
}
