// SPDX-License-Identifier: Apache-2.0
//
// Saving the running configuration, of platform/sys.h. What is written is the command shell's
// affair.
#include "platform/linux/vty_internal.h"
#include "platform/log.h"
#include "platform/sys.h"

int config_save(void) {
  if (vty_config_write_file() != 0) {
    zlog_err("the running configuration could not be saved");
    return -1;
  }
  return 0;
}
