// SPDX-License-Identifier: Apache-2.0
//
// Where a due alarm leaves the agent. A file of its own, so that whoever fills it in, or watches
// what would be handed over, puts another in its place without touching the rules.
#include "qel/qel_alarm.h"

int qel_alarm_notify(uint32_t /*type*/) {
  return 0;
}
