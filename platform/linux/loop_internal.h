// SPDX-License-Identifier: Apache-2.0
//
// What the loop of platform/loop.h is made of here. For tests, which must be able to leave it.
#ifndef MORVA_LINUX_LOOP_INTERNAL_H
#define MORVA_LINUX_LOOP_INTERNAL_H

struct event_base;

struct thread_master {
  event_base* base;
};

#endif  // MORVA_LINUX_LOOP_INTERNAL_H
