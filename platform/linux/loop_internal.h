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

// What thread_main does, in this order, before it runs the first callback.
enum class StartStep {
  kConfigure,   // the saved configuration is applied
  kConfigured,  // what had to wait for it is done
};

// Has thread_main call `func` at `step`, once. One function for each step: a later one takes the
// place of the one before.
void loop_at_start(StartStep step, void (*func)());

// Whether thread_main is beyond StartStep::kConfigure.
bool loop_configured();

#endif  // MORVA_LINUX_LOOP_INTERNAL_H
