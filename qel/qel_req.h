// SPDX-License-Identifier: Apache-2.0
//
// Tracking of requests that the agent hands on, by a 64-bit id, so that an answer finds who asked.
// Created at start-up; nothing in the agent adds to it yet.
#pragma once

#include <cstdint>

#include "qel/qel_cjson.h"
#include "qel/qel_link.h"
#include "qel/qel_pool.h"

// Who asked: the first part of a qel_link.
struct qel_req_context {
  uint32_t kind;
  uint32_t reserved;
  int32_t fd;
  qel_link_addr addr;
  uint32_t addrlen;
  uint32_t flags;
};
static_assert(sizeof(qel_req_context) == 40);

// Called with the answer's text, NUL-terminated and valid during the call.
using qel_req_callback = void (*)(const qel_req_context* context, const char* text);

struct qel_req {
  uint64_t reqid;
  uint32_t time;  // seconds since the epoch
  qel_req_context context;
  qel_req_callback callback;
};
static_assert(sizeof(void*) != 4 || sizeof(qel_req) == 56,
              "64 records are one block of 3584 bytes on the target");

extern qel_pool<qel_req> g_qel_req;

// Creates both lists and the first block.
void qel_req_list_init();
// Adds one block of 64 records to the free list; without memory the process ends.
void qel_req_list_expand();
// Frees every used record of 3 seconds and older. Runs only when no record is free.
void qel_req_recycle_timeout();
// Remembers a request under the next id and returns its record, never null.
qel_req* qel_req_add(const qel_req_context* context, qel_req_callback callback);
// The first used record with that id, or null.
qel_req* qel_req_lookup(uint64_t reqid);
// Hands an answer, printed formatted, to whoever asked, and frees the record. Returns 0, or -1 when
// nobody asked under that id (told on standard output).
int qel_req_answer(uint64_t reqid, const cJSON* answer);
// The standard callback: writes the text, without its NUL, to the context's socket.
void qel_req_callback_write(const qel_req_context* context, const char* text);
// Prints the used list to standard output.
void qel_req_show_list();
