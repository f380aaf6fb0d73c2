// SPDX-License-Identifier: Apache-2.0
//
// The restart of the switch, once it is ordered. Between the order and the end of the process the
// agent serves nothing: a frame that waits behind the last chunk of a restore, or behind a factory
// reset, must not change what was just put in place.
#pragma once

#include <cstdint>

// The one restart; zero while none is ordered.
struct qel_restart_state {
  bool ordered;
  uint32_t seconds;  // since the order, as the one-second timer counts them
};
extern qel_restart_state g_qel_restart;

// Orders the restart of the switch. Returns 0: from now on qel_restart_ordered() holds. Returns -1
// when the platform refused: the agent serves on as before.
int qel_restart_order();

// Whether the restart is ordered. Each read callback asks first; when it holds, the callback
// neither reads nor registers itself again.
bool qel_restart_ordered();

// Counts one second of waiting for the end. A process that still runs a minute after the order ends
// itself with status 1 (logged), so that a restart that never came leaves no deaf agent behind.
// Called by the one-second timer, which does nothing else while the restart is ordered.
void qel_restart_tick();
