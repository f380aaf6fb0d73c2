// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_ipc.h"

#include <arpa/inet.h>
#include <sys/un.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "platform/sys.h"
#include "qel/qel_client.h"
#include "qel/qel_console.h"
#include "qel/qel_devinfo.h"
#include "qel/qel_gw.h"
#include "qel/qel_main.h"
#include "qel/qel_os.h"
#include "qel/qel_restart.h"
#include "qel/qel_shell.h"
#include "qel/qel_table.h"

namespace {

constexpr char kSource[] = "qel/qel_ipc";
constexpr char kSocketPath[] = "/var/run/qel.udp";
constexpr size_t kDatagramSize = 65535;
constexpr int kLineDispatch = 370;  // as the trace has always told it
constexpr int kOnvifCalls = 30;

int ignore(const cJSON* /*msg*/) {
  return 0;
}

struct event_row {
  const char* type;
  int (*handle)(const cJSON* msg);
};

// A neighbour or client leaves by age or by showing up elsewhere, so the deletions do nothing.
constexpr std::array kEvents = {
    event_row{"lldp_add", qel_ipc_handle_lldp_add},
    event_row{"lldp_del", ignore},
    event_row{"dhcpsnoop_add", qel_ipc_handle_dhcpsnoop_add},
    event_row{"dhcpsnoop_del", ignore},
    event_row{"arpsnoop_add", qel_ipc_handle_arpsnoop_add},
    event_row{"arpsnoop_del", ignore},
    event_row{"poe_update", qel_ipc_handle_poe_update},
    event_row{"onvif_discover", qel_ipc_handle_onvif_discover},
    event_row{"cldm_conf", qel_ipc_handle_cldm_conf},
};

// The interface that a member names, or null.
struct uif* named_uif(const cJSON* msg, const char* member) {
  const char* name = cJSON_GetObjectItemString(msg, member);
  return name != nullptr ? uif_get_by_name(name) : nullptr;
}

// A neighbour that moves to another port vanishes from its old one at once.
void forget_elsewhere(const uint8_t mac[6], const char* interface) {
  qel_table_walk(kSource, __LINE__, "qel_ipc_handle_lldp_add",
                 [&](struct uif* uif, qel_port* port) {
                   if (std::strcmp(uif->name, interface) != 0 && port->client_time != 0 &&
                       std::memcmp(port->client_mac, mac, sizeof port->client_mac) == 0) {
                     port->client_time = 0;
                     std::memset(port->client_mac, 0, sizeof port->client_mac);
                   }
                   return true;
                 });
}

void store_neighbour(qel_port* port, const uint8_t mac[6], const cJSON* msg) {
  std::memcpy(port->client_mac, mac, sizeof port->client_mac);
  const char* address = cJSON_GetObjectItemString(msg, "management_address");
  if (address != nullptr) {
    const in_addr_t ip = inet_addr(address);
    port->client_ip = ip != INADDR_NONE ? ip : 0;
  }
  port->client_time = tq_uptime_get();
  port->lldp_seen = 1;
  // The capability text is what is searched, not the description.
  const char* capability = cJSON_GetObjectItemString(msg, "system_capability");
  if (capability != nullptr) {
    port->neighbour_type = qel_client_type_classify(capability);
  }
}

}  // namespace

int qel_ipc_sock_init() {
  const int fd = qel_os_socket(AF_UNIX, SOCK_DGRAM, 0);
  if (fd < 0) {
    std::perror("cannot create pmmanager fd.");
  }
  // Whoever held the name before, this daemon is its reader now.
  qel_os_unlink(kSocketPath);
  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, kSocketPath, sizeof kSocketPath);
  static_assert(sizeof kSocketPath <= sizeof address.sun_path);
  if (qel_os_bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) < 0) {
    std::perror("can not bind saddr");
  }
  funcname_thread_add_read(g_qel_master, qel_ipc_sock_read, nullptr, fd, "qel_ipc_sock_read",
                           kSource, __LINE__);
  return fd;
}

int qel_ipc_sock_read(struct thread* thread) {
  // One byte more than is received, so that the text always ends.
  static char buffer[kDatagramSize + 1];
  const int fd = thread->fd;
  if (qel_restart_ordered()) {
    return 0;
  }
  const ssize_t received = qel_os_recvfrom(fd, buffer, kDatagramSize, nullptr, nullptr);
  if (received > 0) {
    buffer[received] = '\0';
    qel_ipc_cmd_handle(buffer);
  }
  funcname_thread_add_read(g_qel_master, qel_ipc_sock_read, nullptr, fd, "qel_ipc_sock_read",
                           kSource, __LINE__);
  return 0;
}

int qel_ipc_cmd_handle(const char* text) {
  const qel_cjson_tree msg(cJSON_Parse(text));
  const char* type = cJSON_GetObjectItemString(msg.get(), "type");
  if (type == nullptr) {
    return 0;
  }
  if (qel_debug(kDebugGateway)) {
    qel_console("[%s,%d] typestr[%s] \n", __func__, kLineDispatch, type);
  }
  for (const event_row& row : kEvents) {
    if (std::strcmp(row.type, type) == 0) {
      row.handle(msg.get());
      break;
    }
  }
  return 0;
}

int qel_ipc_handle_lldp_add(const cJSON* msg) {
  const char* mac_text = cJSON_GetObjectItemString(msg, "mac");
  const char* interface = cJSON_GetObjectItemString(msg, "local_interface");
  if (mac_text == nullptr || interface == nullptr) {
    return -1;
  }
  const struct uif* uif = uif_get_by_name(interface);
  qel_port* port = qel_port_of(uif);
  uint8_t mac[6] = {};
  if (port == nullptr) {
    return -1;
  }
  str2mac(mac_text, mac);
  forget_elsewhere(mac, interface);
  store_neighbour(port, mac, msg);
  // Told every time, changed or not: peers take each report as a sign of life.
  static qel_text_area<kQelMessageSize> area;
  qel_text& report = area.begin();
  qel_json_ports_client(uif, report);
  return qel_gw_trap_text(report);
}

int qel_ipc_handle_arpsnoop_add(const cJSON* msg) {
  const char* mac = cJSON_GetObjectItemString(msg, "mac");
  const char* ip = cJSON_GetObjectItemString(msg, "ip");
  qel_port* port = qel_port_of(named_uif(msg, "port"));
  // What is learnt behind another switch is no client of this port.
  if (port == nullptr || port->neighbour_type == kQelClientSwitch) {
    return -1;
  }
  if (mac != nullptr) {
    str2mac(mac, port->client_mac);
  }
  if (ip != nullptr) {
    port->client_ip = inet_addr(ip);  // all ones, the invalid result, is kept as it is
  }
  return 0;
}

int qel_ipc_handle_poe_update(const cJSON* msg) {
  const int32_t occupancy = cJSON_GetObjectItemIntDef(msg, "pwroccu", 0);
  const cJSON* member = nullptr;
  cJSON_ArrayForEach(member, cJSON_GetObjectItem(msg, "data")) {
    const char* name = cJSON_GetObjectItemString(member, "name");
    if (name == nullptr) {
      continue;
    }
    const struct uif* uif = uif_lookup_by_name(name);
    if (uif == nullptr) {
      break;  // the first unknown name ends the walk
    }
    qel_port* port = qel_port_of(uif);
    if (port == nullptr) {
      continue;  // known, but no physical port
    }
    port->power = static_cast<uint32_t>(cJSON_GetObjectItemInt(member, "power"));
    port->power_max = static_cast<uint32_t>(cJSON_GetObjectItemInt(member, "power_max"));
    port->poe_priority = static_cast<uint8_t>(cJSON_GetObjectItemInt(member, "poe_priority"));
  }
  qel_devinfo_set(qel_info::poeoccu, "%d", occupancy);
  return 0;
}

int qel_ipc_handle_cldm_conf(const cJSON* msg) {
  // Read as 0 an event without a number would switch the agent off, and save that: for good.
  const cJSON* value = cJSON_GetObjectItem(msg, "qel_enable");
  if (cJSON_IsNumber(value) == 0 && cJSON_IsTrue(value) == 0) {
    return -1;
  }
  qel_enable(cJSON_GetObjectItemInt(msg, "qel_enable"));
  config_save();
  return 0;
}

int qel_ipc_handle_dhcpsnoop_add(const cJSON* msg) {
  uint8_t mac[6] = {};
  const char* text = cJSON_GetObjectItemString(msg, "mac");
  if (text != nullptr) {
    str2mac(text, mac);  // read and converted; nothing keeps it
  }
  return 0;
}

int qel_ipc_handle_onvif_discover(const cJSON* msg) {
  const cJSON* member = nullptr;
  cJSON_ArrayForEach(member, cJSON_GetObjectItem(msg, "data")) {
    for (const char* name : {"ip", "mac", "author", "hardware"}) {
      cJSON_GetObjectItemString(member, name);  // read only
    }
  }
  return 0;
}

int qel_ipc_onvif_trigger() {
  static int calls = 0;
  if (++calls == kOnvifCalls) {
    calls = 0;
    qel_shell_run("onvif");
  }
  return 0;
}
