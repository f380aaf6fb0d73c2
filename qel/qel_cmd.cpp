// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_cmd.h"

#include <array>
#include <cstring>
#include <span>

#include "qel/qel_console.h"

namespace {

struct command_row {
  const char* name;
  qel_cmd_handler handler;
};

// One array in two consecutive parts: the first rows answer "get", "probe" and "ping", the rest
// act. "ports_conf" stands in both: read in the first, set in the second.
constexpr size_t kQueryRows = 9;
constexpr std::array kCommands = {
    command_row{"probe", qel_cmd_handle_probe},
    command_row{"ports_info", qel_cmd_handle_ports_info},
    command_row{"ports_conf", qel_cmd_handle_ports_conf},
    command_row{"ports_link", qel_cmd_handle_ports_link},
    command_row{"ports_poe", qel_cmd_handle_ports_poe},
    command_row{"ports_client", qel_cmd_handle_ports_client},
    command_row{"ports_stats", qel_cmd_handle_ports_stats},
    command_row{"ping", qel_cmd_handle_pingnew},
    command_row{"qelipc", qel_cmd_handle_qelipc},

    command_row{"ports_conf", qel_cmd_handle_portsconf_set},
    command_row{"port_enable", qel_cmd_handle_port_enable},
    command_row{"port_speed", qel_cmd_handle_port_speed},
    command_row{"port_restart", qel_cmd_handle_port_restart},
    command_row{"sys_ip", qel_cmd_handle_sys_ip},
    command_row{"sys_time", qel_cmd_handle_sys_time},
    command_row{"hfs_upgrade", qel_cmd_handle_hfs_upgrade},
    command_row{"sys_reboot", qel_cmd_handle_sys_reboot},
    command_row{"config_reset", qel_cmd_handle_config_reset},
    command_row{"sys_active", qel_sys_active},
    command_row{"config_upload", qel_cmd_handle_conf_get},
    command_row{"name", qel_cmd_handle_name},
};
static_assert(kCommands.size() == 21);
static_assert(std::string_view(kCommands[kQueryRows - 1].name) == "qelipc" &&
              std::string_view(kCommands[kQueryRows].name) == "ports_conf");

bool is_query(const char* cmd) {
  return std::strcmp(cmd, "get") == 0 || std::strcmp(cmd, "probe") == 0 ||
         std::strcmp(cmd, "ping") == 0;
}

const char* or_null(const char* text) {
  return text != nullptr ? text : "(null)";
}

// The search goes on behind a match, so equal names within one part would all run.
void run_rows(std::span<const command_row> rows, const char* subcmd, qel_link* link,
              const cJSON* root, const char* text) {
  for (const command_row& row : rows) {
    if (std::strcmp(row.name, subcmd) == 0) {
      row.handler(link, root, text);
    }
  }
}

}  // namespace

int qel_cmd_dispatch(qel_link* link, const char* text, uint16_t lenfield, size_t received) {
  const qel_cjson_tree root(cJSON_Parse(text));
  const char* cmd = cJSON_GetObjectItemString(root.get(), "cmd");
  if (cmd == nullptr) {
    return 0;
  }
  const char* subcmd = cJSON_GetObjectItemString(root.get(), "subcmd");
  const char* mac = cJSON_GetObjectItemString(root.get(), "mac");
  if (qel_debug(kDebugFrame)) {
    qel_console("cmd %s subcmd %s mac=%s \r\n", cmd, or_null(subcmd), or_null(mac));
  }
  if (subcmd == nullptr) {
    return 0;
  }
  // The two downloads come before the tables and whatever "cmd" says.
  if (std::strcmp(subcmd, "config_download") == 0) {
    qel_cmd_handle_conf_download(link, root.get(), text, lenfield, received);
  } else if (std::strcmp(subcmd, "firm_download") == 0) {
    qel_cmd_handle_firm_download(link, root.get(), text, lenfield, received);
  } else {
    const std::span<const command_row> all(kCommands);
    run_rows(is_query(cmd) ? all.first(kQueryRows) : all.subspan(kQueryRows), subcmd, link,
             root.get(), text);
  }
  return 0;
}
