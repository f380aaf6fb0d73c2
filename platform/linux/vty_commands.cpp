// SPDX-License-Identifier: Apache-2.0
//
// The shell's own commands: moving between the nodes, looking at things, saving the configuration,
// and the shell's settings.
#include <malloc.h>

#include <cstdlib>
#include <cstring>

#include "platform/linux/vty_internal.h"
#include "platform/sys.h"
#include "platform/uif.h"

namespace morva::shell {
namespace {

constexpr size_t kHostNameMaximum = 63;

int enable(const cmd_element*, struct vty* vty, int, const char**) {
  vty->node = VTY_NODE_ENABLE;
  return 0;
}

int disable(const cmd_element*, struct vty* vty, int, const char**) {
  vty->node = VTY_NODE_VIEW;
  return 0;
}

int configure(const cmd_element*, struct vty* vty, int, const char**) {
  vty->node = VTY_NODE_CONFIG;
  return 0;
}

int leave(const cmd_element*, struct vty* vty, int, const char**) {
  vty->interface.clear();
  if (vty->node > VTY_NODE_CONFIG) {
    vty->node = VTY_NODE_CONFIG;
  } else if (vty->node == VTY_NODE_CONFIG) {
    vty->node = VTY_NODE_ENABLE;
  } else {
    vty->closing = true;
  }
  return 0;
}

int end(const cmd_element*, struct vty* vty, int, const char**) {
  vty->interface.clear();
  vty->node = VTY_NODE_ENABLE;
  return 0;
}

int help(const cmd_element*, struct vty* vty, int, const char**) {
  static constexpr const char* kLines[] = {
      "A question mark at any place of a line tells what may stand there. Tab finishes a word",
      "that has begun; a word may be cut short as long as it is the only one that begins so.",
      "Arrow keys move in the line and through the lines typed before. `list` shows all commands",
      "of this level, `exit` leaves it, `end` (or ctrl-Z) leaves the configuration.",
  };
  for (const char* line : kLines) {
    vty_out(vty, "%s%s", line, vty_newline(vty));
  }
  return 0;
}

int list(const cmd_element*, struct vty* vty, int, const char**) {
  const Node* node = node_find(vty->node);
  if (node == nullptr) {
    return -1;
  }
  for (const Pattern& pattern : node->patterns) {
    vty_out(vty, "  %s%s", pattern.element->string, vty_newline(vty));
  }
  return 0;
}

int show_version(const cmd_element*, struct vty* vty, int, const char**) {
  static constexpr struct {
    const char* title;
    const char* key;
  } kRows[] = {
      {"Model", "product_model"},
      {"Serial number", "product_sn"},
      {"Hardware version", "product_hw_ver"},
      {"Firmware version", "firmware_ver"},
  };
  for (const auto& row : kRows) {
    const char* value = nvram_safe_get(row.key);
    vty_out(vty, "%-17s %s%s", row.title, *value != '\0' ? value : "unknown", vty_newline(vty));
  }
  const unsigned long uptime = tq_uptime_get();
  vty_out(vty, "%-17s %lu days %02lu:%02lu:%02lu%s", "Up time", uptime / 86400, uptime / 3600 % 24,
          uptime / 60 % 60, uptime % 60, vty_newline(vty));
  return 0;
}

int show_history(const cmd_element*, struct vty* vty, int, const char**) {
  for (const std::string& line : vty->history.lines) {
    vty_out(vty, "  %s%s", line.c_str(), vty_newline(vty));
  }
  return 0;
}

int show_memory(const cmd_element*, struct vty* vty, int, const char**) {
  const struct mallinfo2 info = mallinfo2();
  vty_out(vty, "Taken from the system  %zu bytes%s", info.arena + info.hblkhd, vty_newline(vty));
  vty_out(vty, "In use                 %zu bytes%s", info.uordblks + info.hblkhd, vty_newline(vty));
  vty_out(vty, "Free for reuse         %zu bytes%s", info.fordblks, vty_newline(vty));
  return 0;
}

int show_running_config(const cmd_element*, struct vty* vty, int, const char**) {
  const char* line_end = vty_newline(vty);
  vty_out(vty, "%sCurrent configuration:%s!%s", line_end, line_end, line_end);
  nodes_write_config(*vty);
  vty_out(vty, "end%s", line_end);
  return 0;
}

int write_config(const cmd_element* element, struct vty* vty, int argc, const char** argv) {
  if (argc > 0 && strcmp(argv[0], "terminal") == 0) {
    return show_running_config(element, vty, 0, nullptr);
  }
  if (vty_config_write_file() != 0) {
    vty_out(vty, "%% The configuration could not be saved; the log says why%s", vty_newline(vty));
    return -1;
  }
  vty_out(vty, "Configuration saved%s", vty_newline(vty));
  return 0;
}

int set_host_name(const cmd_element*, struct vty* vty, int argc, const char** argv) {
  const std::string_view name = argc > 0 ? argv[0] : "";
  for (const char c : name) {
    if (strchr("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-", c) == nullptr) {
      vty_out(vty, "%% A host name has letters, digits, '.', '_' and '-'%s", vty_newline(vty));
      return -1;
    }
  }
  if (name.empty() || name.size() > kHostNameMaximum) {
    vty_out(vty, "%% A host name has at most %zu letters%s", kHostNameMaximum, vty_newline(vty));
    return -1;
  }
  settings().host_name = name;
  return 0;
}

int reset_host_name(const cmd_element*, struct vty*, int, const char**) {
  settings().host_name = Settings().host_name;
  return 0;
}

int set_idle_time(const cmd_element*, struct vty*, int argc, const char** argv) {
  const unsigned minutes = argc > 0 ? static_cast<unsigned>(atoi(argv[0])) : 0;
  const unsigned seconds = argc > 1 ? static_cast<unsigned>(atoi(argv[1])) : 0;
  settings().idle_seconds = minutes * 60 + seconds;
  return 0;
}

int reset_idle_time(const cmd_element*, struct vty*, int, const char**) {
  settings().idle_seconds = Settings().idle_seconds;
  return 0;
}

int enter_interface(const cmd_element*, struct vty* vty, int argc, const char** argv) {
  if (argc < 1 || uif_lookup_by_name(argv[0]) == nullptr || node_find(kInterfaceNode) == nullptr) {
    vty_out(vty, "%% No such interface: %s%s", argc > 0 ? argv[0] : "", vty_newline(vty));
    return -1;
  }
  vty->interface = argv[0];
  vty->node = kInterfaceNode;
  return 0;
}

// The interfaces are those of the hardware and of the interface manager: none can be taken away
// here.
int remove_interface(const cmd_element*, struct vty* vty, int argc, const char** argv) {
  const bool known = argc > 0 && uif_lookup_by_name(argv[0]) != nullptr;
  vty_out(vty, known ? "%% Interface %s cannot be removed%s" : "%% No such interface: %s%s",
          argc > 0 ? argv[0] : "", vty_newline(vty));
  return -1;
}

constexpr cmd_element kEnable = {"enable", enable, "Allow changes\n"};
constexpr cmd_element kDisable = {"disable", disable, "Allow looking only\n"};
constexpr cmd_element kConfigure = {"configure terminal", configure,
                                    "Change the configuration\nFrom this session\n"};
constexpr cmd_element kExit = {"exit", leave, "Leave this level, or the shell\n"};
constexpr cmd_element kQuit = {"quit", leave, "Leave this level, or the shell\n"};
constexpr cmd_element kEnd = {"end", end, "Leave the configuration\n"};
constexpr cmd_element kHelp = {"help", help, "How to use the shell\n"};
constexpr cmd_element kList = {"list", list, "All commands of this level\n"};
constexpr cmd_element kVersion = {"show version", show_version,
                                  "Show information\nModel, versions and up time\n"};
constexpr cmd_element kHistory = {"show history", show_history,
                                  "Show information\nThe lines typed before\n"};
constexpr cmd_element kMemory = {"show memory", show_memory,
                                 "Show information\nMemory of this daemon\n"};
constexpr cmd_element kRunning = {"show running-config", show_running_config,
                                  "Show information\nThe configuration as it is now\n"};
constexpr cmd_element kWrite = {"write", write_config, "Save the configuration\n"};
constexpr cmd_element kWriteWhere = {
    "write (file|memory|terminal)", write_config,
    "Save the configuration\nInto its file\nInto its file\nShow it only\n"};
constexpr cmd_element kHostName = {"hostname NAME", set_host_name,
                                   "Name of the switch in the prompt\nThe name\n"};
constexpr cmd_element kNoHostName = {"no hostname", reset_host_name,
                                     "Set back\nName of the switch in the prompt\n"};
constexpr cmd_element kIdleMinutes = {"exec-timeout <0-35791>", set_idle_time,
                                      "Idle time after which sessions end\nMinutes, 0 for never\n"};
constexpr cmd_element kIdleTime = {
    "exec-timeout <0-35791> <0-59>", set_idle_time,
    "Idle time after which sessions end\nMinutes\nSeconds; never if both are 0\n"};
constexpr cmd_element kNoIdleTime = {"no exec-timeout", reset_idle_time,
                                     "Set back\nIdle time after which sessions end\n"};

// Where the commands stand. Sessions only: a configuration file has no use for them.
constexpr struct {
  int node;
  const cmd_element* element;
} kSessionCommands[] = {
    {VTY_NODE_VIEW, &kEnable},    {VTY_NODE_VIEW, &kExit},      {VTY_NODE_VIEW, &kQuit},
    {VTY_NODE_VIEW, &kHelp},      {VTY_NODE_VIEW, &kList},      {VTY_NODE_VIEW, &kVersion},
    {VTY_NODE_VIEW, &kHistory},   {VTY_NODE_ENABLE, &kDisable}, {VTY_NODE_ENABLE, &kConfigure},
    {VTY_NODE_ENABLE, &kExit},    {VTY_NODE_ENABLE, &kQuit},    {VTY_NODE_ENABLE, &kHelp},
    {VTY_NODE_ENABLE, &kList},    {VTY_NODE_ENABLE, &kVersion}, {VTY_NODE_ENABLE, &kHistory},
    {VTY_NODE_ENABLE, &kRunning}, {VTY_NODE_ENABLE, &kWrite},   {VTY_NODE_ENABLE, &kWriteWhere},
};

constexpr const cmd_element* kDefaultCommands[] = {
    &kExit, &kQuit, &kEnd, &kHelp, &kList, &kRunning, &kWrite, &kWriteWhere,
};

constexpr const cmd_element* kSettingCommands[] = {
    &kHostName, &kNoHostName, &kIdleMinutes, &kIdleTime, &kNoIdleTime,
};

bool g_terminal = false;  // the daemon wants the commands of an interactive shell

}  // namespace

Settings& settings() {
  static Settings instance;
  return instance;
}

void commands_install(bool terminal) {
  settings() = Settings();
  g_terminal = terminal;
  if (terminal) {
    for (const auto& row : kSessionCommands) {
      install_element(row.node, row.element);
    }
  }
  commands_install_default(VTY_NODE_CONFIG);
  for (const cmd_element* element : kSettingCommands) {
    install_element(VTY_NODE_CONFIG, element);
  }
}

void commands_install_default(int node) {
  if (!g_terminal) {
    return;
  }
  for (const cmd_element* element : kDefaultCommands) {
    install_element(node, element);
  }
}

bool command_is_for_sessions(const cmd_element* element) {
  for (const cmd_element* row : kDefaultCommands) {
    if (row == element) {
      return true;
    }
  }
  return false;
}

}  // namespace morva::shell

const struct cmd_element morva_interface_cmd = {"interface NAME", morva::shell::enter_interface,
                                                "Go to an interface\nIts name\n"};
const struct cmd_element no_morva_interface_cmd = {"no interface NAME",
                                                   morva::shell::remove_interface,
                                                   "Set back\nRemove an interface\nIts name\n"};

void memory_init(void) {
  install_element(VTY_NODE_VIEW, &morva::shell::kMemory);
  install_element(VTY_NODE_ENABLE, &morva::shell::kMemory);
}
