// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_shell.h"

#include "qel/qel_os.h"

int qel_shell_run(const char* command) {
  return qel_os_system(command);
}
