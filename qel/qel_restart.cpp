// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_restart.h"

#include "platform/log.h"
#include "platform/sys.h"
#include "qel/qel_os.h"

namespace {

constexpr uint32_t kPatience = 60;  // seconds from the order to the end

}  // namespace

qel_restart_state g_qel_restart;

int qel_restart_order() {
  // Set first: the platform may end this process before the call returns.
  g_qel_restart = {.ordered = true, .seconds = 0};
  if (sys_reboot() != 0) {
    g_qel_restart = {};
    return -1;
  }
  return 0;
}

bool qel_restart_ordered() {
  return g_qel_restart.ordered;
}

void qel_restart_tick() {
  if (++g_qel_restart.seconds >= kPatience) {
    zlog_err("the restart ordered %u s ago did not come, the agent ends", g_qel_restart.seconds);
    qel_os_exit(1);
  }
}
