// SPDX-License-Identifier: Apache-2.0
//
// The short way through the reply of the module "statistics": the gateway polls the counters, and a
// tree of a reply for 52 ports costs four times what everything else about it does.
#pragma once

#include <cstdint>

#include "platform/uif.h"

// What one row tells, each as cJSON would have read it.
struct qel_stats_row {
  char name[UIF_NAME_SIZE];
  uint64_t tx_sum;
  uint64_t rx_sum;
  uint64_t tx_rate;
  uint64_t rx_rate;
};

// Calls `visit` for each row of `reply` in its order. Only for replies of exactly the usual form,
// {"ret":0,"data":[{"name":"ge1","tx_sum":1,"rx_sum":2,"tx_rate":3,"rx_rate":4},...]}
// without blanks, with 1 to 128 rows of plain names and whole numbers: returns false for any other,
// and has then not called `visit` at all. A false says nothing about the reply: it may be perfectly
// good JSON.
bool qel_stats_read(const char* reply, void (*visit)(const qel_stats_row& row));
