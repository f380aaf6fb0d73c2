// SPDX-License-Identifier: Apache-2.0
//
// Runs the agent's scan of the layer-2 table against the switch that it is started in, once for
// each line of standard input, and prints what it found: `scan RESULT`, a line for each address
// (`MAC PORT`), the alarm as it stands (`alarm TEXT`), and `end`. The agent itself has the scan on
// board but starts it from nowhere.
#include <cstdio>

#include "platform/list.h"
#include "platform/uif.h"
#include "qel/qel_alarm.h"
#include "qel/qel_mac.h"

namespace {

void print_addresses() {
  for (listnode* node = g_qel_cur_mac_list->head; node != nullptr; node = node->next) {
    const auto* entry = static_cast<const qel_mac_entry*>(node->data);
    const uif* port = uif_lookup_by_index(entry->port);
    for (int i = 0; i < 6; i++) {
      std::printf(i == 0 ? "%02x" : ":%02x", entry->mac[i]);
    }
    std::printf(" %s\n", port != nullptr ? port->name : "?");
  }
}

}  // namespace

int main() {
  uif_init();
  qel_alarm_init();
  qel_mac_init();
  char line[64];
  while (std::fgets(line, sizeof line, stdin) != nullptr) {
    std::printf("scan %d\n", qel_mac_scan_check_l2_map());
    print_addresses();
    const qel_alarm_entry& alarm = g_qel_alarm_table[kAlarmMacMove];
    std::printf("alarm %.*s\nend\n", static_cast<int>(alarm.msg_length), alarm.msg);
    std::fflush(stdout);
  }
  return 0;
}
