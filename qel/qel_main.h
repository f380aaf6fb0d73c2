// SPDX-License-Identifier: Apache-2.0
//
// Start-up, the event loop and the one-second timer: what holds the agent's modules together.
#pragma once

#include "platform/loop.h"

// The one event loop, made at start-up; every registration uses it.
extern struct thread_master* g_qel_master;

// The version as the agent logs it.
inline constexpr char kQelVersion[] = "V1.0.26.d.1-gfd7ebc3d3";

// The whole start-up sequence, then the event loop; `main` does nothing else. Returns the exit
// status: 0 when the loop ended; a start that fails ends the process with status 1.
int qel_main(int argc, char** argv);

// Initialises the program's own tables and sockets. What fails is told by its module and does not
// stop start-up.
void qel_init();

// Switches the agent on (1) or off (0): record, temporary setting, hardware layer.
void qel_enable(int value);

// Switches the agent on, and off again when the maker's record says so.
void qel_enable_init();

// Ends the process with status 0, on the signals that ask for it.
void qel_terminate();

// Read callback ("qel_read"): one connection of the interface-manager client. The client is the
// argument. A connection that fails is closed and not registered again.
int qel_read(struct thread* thread);

// Read callback ("qel_serv"): the client's listening socket; accepts one connection. Returns 0, or
// -1 when accept failed; listening goes on either way.
int qel_serv(struct thread* thread);

// Timer callback ("qel_timer_second"): the housekeeping of every second.
int qel_timer_second(struct thread* thread);
