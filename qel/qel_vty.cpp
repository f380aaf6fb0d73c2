// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_vty.h"

#include <cstdlib>

#include "platform/vty.h"
#include "qel/qel_main.h"
#include "qel/qel_table.h"

namespace {

// Node numbers as the platform's shell knows them.
constexpr int kNodeInterface = 69;
constexpr int kNodeQel = 97;
constexpr int kNodeOther = 68;

constexpr cmd_node kInterfaceNode = {kNodeInterface, "", 1};
constexpr cmd_node kQelNode = {kNodeQel, "", 1};
constexpr cmd_node kOtherNode = {kNodeOther, "", 1};

int write_nothing(struct vty* /*vty*/) {
  return 1;
}

// Calls qel_enable only when the state changes: the hardware layer is not told twice.
void switch_to(uint32_t wanted) {
  if (g_qel_dev.enable != wanted) {
    g_qel_dev.enable = wanted;
    qel_enable(static_cast<int>(wanted));
  }
}

int enable_command(const struct cmd_element* /*element*/, struct vty* /*vty*/, int argc,
                   const char* argv[]) {
  const char letter = argc > 0 ? argv[0][0] : '\0';
  if (letter == 'e') {
    switch_to(1);
  } else if (letter == 'd') {
    switch_to(0);
  }
  return 0;
}

int debug_command(const struct cmd_element* /*element*/, struct vty* /*vty*/, int argc,
                  const char* argv[]) {
  if (argc > 0) {
    g_qel_dev.debug = static_cast<uint32_t>(std::atoi(argv[0]));
  }
  return 0;
}

constexpr cmd_element kEnableCommand = {"qel (enable|disable)", enable_command,
                                        "Qel information\n"
                                        "Enable qel-eth\n"
                                        "Disable qel-eth\n"};

constexpr cmd_element kDebugCommand = {"qel debug <0-255>", debug_command,
                                       "Debugging functions (see also 'undebug')\n"
                                       "Debug qel module\n"
                                       "value 0~255\n"};

}  // namespace

void qel_vty_init() {
  install_node(&kInterfaceNode, write_nothing);
  install_node(&kQelNode, qel_config_write);
  install_node(&kOtherNode, nullptr);
  install_default(kNodeOther);
  install_default(kNodeInterface);
  install_element(VTY_NODE_CONFIG, &morva_interface_cmd);
  install_element(kNodeInterface, &morva_interface_cmd);
  install_element(VTY_NODE_CONFIG, &no_morva_interface_cmd);
  install_element(VTY_NODE_CONFIG, &kEnableCommand);
  install_element(VTY_NODE_CONFIG, &kDebugCommand);
}

int qel_config_write(struct vty* vty) {
  // The debug mask is for the moment and never saved.
  if (g_qel_dev.enable == 0) {
    vty_out(vty, "qel disable%s", vty_newline(vty));
  } else if (g_qel_dev.enable == 1) {
    vty_out(vty, "qel enable%s", vty_newline(vty));
  }
  vty_out(vty, "!%s", vty_newline(vty));
  return 1;
}
