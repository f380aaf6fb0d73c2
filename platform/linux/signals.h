// SPDX-License-Identifier: Apache-2.0
//
// Signals between the kernel and the handlers that signal_init() binds. The kernel's side only
// notes a signal and makes a descriptor readable; handlers are called from ordinary context: by the
// loop, and, until the loop begins, by every wait of the library. So SIGTERM ends a daemon that
// starts at once, however long the rest of the switch keeps it waiting.
#ifndef MORVA_LINUX_SIGNALS_H
#define MORVA_LINUX_SIGNALS_H

// Keeps SIGINT, SIGTERM, SIGQUIT and SIGTSTP, where nobody handles them yet, until signals_bound().
// A wait that one of them meets fails with ECANCELED.
void signals_hold();

// Binds one signal to its handler. False when the system has no resources for it.
bool signals_bind(int signo, void (*handler)(void));

// To be called when all are bound: calls the handlers of what was kept. What was kept and is bound
// to nothing has its default effect now.
void signals_bound();

// Readable while a signal waits for signals_run(); -1 before anything was bound or held. Not the
// caller's to read or close.
int signals_fd();

// Calls the handlers of the signals that were noted.
void signals_run();

// True while a held signal waits for its handler to be bound.
bool signals_held();

// A daemon starts (its waits run handlers), or serves (the loop alone does).
void signals_starting();
void signals_serving();

// poll() on one descriptor (-1: none) for `milliseconds` at the most. Returns 1 when `events` are
// there, 0 when not, -1 on failure: errno is EINTR when handlers ran or a signal came, ECANCELED
// when a held signal waits.
int signals_poll(int fd, short events, int milliseconds);

#endif  // MORVA_LINUX_SIGNALS_H
