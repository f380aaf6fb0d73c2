// SPDX-License-Identifier: Apache-2.0
//
// What the loop of platform/loop.h is made of here: for tests, which must be able to leave it, and
// for caches that hold for one callback.
#ifndef MORVA_LINUX_LOOP_INTERNAL_H
#define MORVA_LINUX_LOOP_INTERNAL_H

struct event_base;

struct thread_master {
  event_base* base;
};

// The number of the callback that runs, or 0 outside of callbacks. What was read once under one
// number need not be read again under it.
unsigned long loop_turn();

// To be called where the callback that runs waited for, or caused, a change by somebody: from here
// on it has another number.
void loop_new_turn();

#endif  // MORVA_LINUX_LOOP_INTERNAL_H
