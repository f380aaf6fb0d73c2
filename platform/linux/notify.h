// SPDX-License-Identifier: Apache-2.0
//
// Messages to a service manager that asked for them by NOTIFY_SOCKET: that the start is over, and,
// where WATCHDOG_USEC says so, that the event loop still turns. Without these variables nothing
// here does anything. Used by the library and by morvad.
#ifndef MORVA_LINUX_NOTIFY_H
#define MORVA_LINUX_NOTIFY_H

#include <stdint.h>

struct event_base;

// Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID once and takes them out of the environment:
// what this process starts must not speak in its name. Later calls change nothing unless the
// variables were set anew.
void notify_read_environment();

// Microseconds after which the service manager counts this process as frozen; 0 when it does not
// watch it.
int64_t notify_watchdog_us();

// Sends one message. False when nobody asked for it, or it could not be sent.
bool notify_send(const char* text);

// Tells that the start is over. From then on a timer of `base` feeds the watchdog, if there is one,
// at half its interval: a loop that does not turn does not feed.
void notify_ready(event_base* base);

#endif  // MORVA_LINUX_NOTIFY_H
