// SPDX-License-Identifier: Apache-2.0
//
// The interface cache of platform/uif.h, filled from morvad's table at start and kept current by
// uclient.cpp. Records are found by name and by index through hash chains, by port through an
// array: a 52-port report looks every port up by its name.
#include "platform/uif.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include "platform/linux/json.h"
#include "platform/linux/morva_call.h"
#include "platform/linux/signals.h"
#include "platform/linux/uif_internal.h"
#include "platform/linux/uif_row.h"
#include "platform/log.h"

list* g_uif_list = nullptr;
int g_port_max = 0;

namespace {

constexpr size_t kBuckets = 256;
constexpr int kStartPollMs = 20;

// A record with its places in the chains. Never freed: daemons keep pointers to records.
struct node {
  uif record;  // first: a record's address is its node's
  node* next_by_name;
  node* next_by_index;
};

node* by_name[kBuckets];
node* by_index[kBuckets];
node* by_port[kUifPortMax + 1];

size_t name_bucket(const char* name) {
  uint32_t hash = 2166136261U;
  for (; *name != '\0'; ++name) {
    hash = (hash ^ static_cast<unsigned char>(*name)) * 16777619U;
  }
  return (hash ^ (hash >> 16)) % kBuckets;
}

size_t index_bucket(uint32_t index) {
  return (index ^ (index >> 24)) % kBuckets;
}

node* find_by_name(const char* name) {
  node* at = by_name[name_bucket(name)];
  while (at != nullptr && strcmp(at->record.name, name) != 0) {
    at = at->next_by_name;
  }
  return at;
}

node* find_by_index(uint32_t index) {
  node* at = by_index[index_bucket(index)];
  while (at != nullptr && at->record.index != index) {
    at = at->next_by_index;
  }
  return at;
}

void enter_index(node* entry) {
  node** bucket = &by_index[index_bucket(entry->record.index)];
  entry->next_by_index = *bucket;
  *bucket = entry;
  if (uif_index_is_port(entry->record.index)) {
    by_port[entry->record.port_no] = entry;
  }
}

void leave_index(node* entry) {
  node** at = &by_index[index_bucket(entry->record.index)];
  while (*at != entry) {
    at = &(*at)->next_by_index;
  }
  *at = entry->next_by_index;
  if (uif_index_is_port(entry->record.index)) {
    by_port[entry->record.port_no] = nullptr;
  }
}

// True when `fresh` may stand beside all records other than `self` (null for a new interface).
bool fits_in(const uif& fresh, const node* self) {
  const node* same_index = find_by_index(fresh.index);
  if (same_index != nullptr && same_index != self) {
    return false;
  }
  if (!uif_index_is_port(fresh.index)) {
    return self == nullptr || !uif_index_is_port(self->record.index);
  }
  const node* same_port = by_port[fresh.port_no];
  return (same_port == nullptr || same_port == self) &&
         (self == nullptr || uif_index_is_port(self->record.index));
}

node* add_node(const uif& fresh) {
  if (g_uif_list->count >= kUifCountMax) {
    return nullptr;
  }
  node* entry = static_cast<node*>(calloc(1, sizeof(node)));
  if (entry == nullptr) {
    return nullptr;
  }
  entry->record = fresh;
  node** bucket = &by_name[name_bucket(fresh.name)];
  entry->next_by_name = *bucket;
  *bucket = entry;
  listnode_add(g_uif_list, &entry->record);
  return entry;
}

// The interface table, as soon as morvad gives it; null when it does not in time.
cJSON* wait_for_table() {
  const int64_t end = morva_now_ns() + static_cast<int64_t>(morva_start_wait_ms()) * 1000000;
  for (;;) {
    cJSON* answer = morva_ask_quietly("ifmgr", "if_table_get", nullptr, morva_deadline_ms());
    if (answer != nullptr || morva_now_ns() >= end) {
      return answer;
    }
    signals_poll(-1, 0, kStartPollMs);
  }
}

bool ensure_list() {
  if (g_uif_list == nullptr) {
    g_uif_list = list_new();
  }
  return g_uif_list != nullptr;
}

}  // namespace

uif* uif_apply_row(const cJSON* row) {
  uif fresh = {};
  fresh.aux_index = -1;
  const char* name = json_text(row, "name");
  node* known = name != nullptr ? find_by_name(name) : nullptr;
  if (known != nullptr) {
    fresh = known->record;
  }
  if (!uif_row_read(row, &fresh) || !fits_in(fresh, known) || !ensure_list()) {
    zlog_err("interface table: the row of %.40s is no good", name != nullptr ? name : "?");
    return nullptr;
  }
  if (known == nullptr) {
    known = add_node(fresh);
    if (known == nullptr) {
      zlog_err("interface table: no room for %s", fresh.name);
      return nullptr;
    }
  } else {
    leave_index(known);
    known->record = fresh;
  }
  enter_index(known);
  return &known->record;
}

uif* uif_apply_status(const cJSON* message) {
  uif* record = uif_get_by_name(json_text(message, "name"));
  if (record == nullptr) {
    return nullptr;
  }
  uif fresh = *record;
  if (!uif_status_read(message, &fresh)) {
    return nullptr;
  }
  *record = fresh;
  return record;
}

void uif_clear() {
  while (listnode_head(g_uif_list) != nullptr) {
    void* record = listnode_head(g_uif_list);
    listnode_delete(g_uif_list, record);
    free(record);
  }
  free(g_uif_list);
  g_uif_list = nullptr;
  g_port_max = 0;
  memset(by_name, 0, sizeof by_name);
  memset(by_index, 0, sizeof by_index);
  memset(by_port, 0, sizeof by_port);
}

void uif_init(void) {
  if (!ensure_list()) {
    zlog_assert_failed("g_uif_list != NULL", "platform/linux/uif", __LINE__, __func__);
  }
  const JsonTree answer(wait_for_table());
  const cJSON* rows = json_member(answer.get(), "data");
  if (!cJSON_IsArray(rows)) {
    zlog_err("interface table: no answer from the interface manager, there are no ports");
  } else {
    for (const cJSON* row = rows->child; row != nullptr; row = row->next) {
      uif_apply_row(row);
    }
  }
  int ports = 0;
  for (const node* port : by_port) {
    ports += port != nullptr ? 1 : 0;
  }
  g_port_max = ports;
}

// No call of the platform reads a VLAN cache, so there is none to fill here.
void uvlan_init(void) {}

uif* uif_get_by_name(const char* name) {
  node* entry = name != nullptr ? find_by_name(name) : nullptr;
  return entry != nullptr ? &entry->record : nullptr;
}

uif* uif_lookup_by_name(const char* name) {
  return uif_get_by_name(name);
}

uif* uif_lookup_by_index(uint32_t index) {
  node* entry = find_by_index(index);
  return entry != nullptr ? &entry->record : nullptr;
}

uif* uif_lookup_by_port_index(int port_index) {
  if (port_index < 0 || port_index >= kUifPortMax || by_port[port_index + 1] == nullptr) {
    return nullptr;
  }
  return &by_port[port_index + 1]->record;
}

int uif_is_enable(const uif* uif) {
  return (uif->flags & UIF_FLAG_DISABLED) == 0 ? 1 : 0;
}

int uif_is_linkup(const uif* uif) {
  return uif->link != 0 ? 1 : 0;
}
