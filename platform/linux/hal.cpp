// SPDX-License-Identifier: Apache-2.0
//
// The hardware layer of platform/hal.h. On a Linux machine the switch chip is morvad's.
#include "platform/hal.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "platform/linux/fd.h"
#include "platform/linux/json.h"
#include "platform/linux/loop_internal.h"
#include "platform/linux/morva_call.h"
#include "platform/linux/paths.h"
#include "platform/linux/process_lock.h"
#include "platform/linux/signals.h"
#include "platform/log.h"
#include "platform/sys.h"

namespace {

// Entries that one question asks for: their rows always fit into one reply.
constexpr uint32_t kChunk = 256;
constexpr uint32_t kVidMax = 4095;

static_assert(sizeof(hal_mac_entry) == 20);

bool read_entry(const cJSON* row, hal_mac_entry* entry) {
  int64_t port = 0;
  int64_t type = 0;
  int64_t aging_time = 0;
  int64_t vid = 0;
  const char* mac = json_text(row, "mac");
  if (!json_int(row, "port", 0, UINT32_MAX, &port) ||
      !json_int(row, "type", 0, UINT32_MAX, &type) ||
      !json_int(row, "aging_time", 0, UINT32_MAX, &aging_time) ||
      !json_int(row, "vid", 0, kVidMax, &vid) || str2mac(mac, entry->mac) != 0) {
    return false;
  }
  entry->port = static_cast<uint32_t>(port);
  entry->type = static_cast<uint32_t>(type);
  entry->aging_time = static_cast<uint32_t>(aging_time);
  entry->vid = static_cast<uint16_t>(vid);
  return true;
}

cJSON* number_object(const char* name, double value) {
  cJSON* object = cJSON_CreateObject();
  cJSON_AddNumberToObject(object, name, value);
  return object;
}

// Reads up to `batch` (at most kChunk) entries; their number, or -1.
long read_chunk(hal_mac_entry* entries, uint32_t start, uint32_t batch, uint32_t select) {
  cJSON* data = number_object("start", start);
  cJSON_AddNumberToObject(data, "batch", batch);
  cJSON_AddNumberToObject(data, "select", select);
  const JsonTree answer(morva_ask("hal", "mac_get", data));
  const cJSON* rows = json_member(answer.get(), "data");
  if (!cJSON_IsArray(rows)) {
    return -1;
  }
  uint32_t count = 0;
  for (const cJSON* row = rows->child; row != nullptr; row = row->next) {
    if (count == batch || !read_entry(row, &entries[count])) {
      zlog_err("hal: entry %u of the layer-2 table is no good", start + count);
      return -1;
    }
    ++count;
  }
  return count;
}

constexpr mode_t kRunDirMode = 0750;

// Longer than a start or a request takes whose every question to a module runs into its deadline.
constexpr int64_t kSilenceLimitS = 60;

int held_client = -1;

// Opens the lock file of `client`; a negative errno on failure.
int open_lock(int client) {
  char path[kMorvaPathSize];
  // morvad makes the folder as well; whoever comes first does.
  if (mkdir(morva_path(path, sizeof path, MORVA_RUN_DIR), kRunDirMode) != 0 && errno != EEXIST) {
    return -errno;
  }
  char name[64];
  snprintf(name, sizeof name, MORVA_RUN_DIR "/client-%d.lock", client);
  return process_lock_open(morva_path(path, sizeof path, name));
}

// True when the holder is of no use any more: nothing of it runs that could make it useful again.
bool is_frozen(int client, const LockHolder& holder) {
  const bool stopped = process_is_stopped(holder);
  if (!stopped && holder.silent_s < kSilenceLimitS) {
    return false;
  }
  const int pid = static_cast<int>(holder.pid);
  if (process_has_children(holder)) {
    zlog_err("hal: client %d: process %d waits for a program that it started", client, pid);
    return false;
  }
  if (stopped) {
    zlog_err("hal: client %d: process %d is stopped, it has to end", client, pid);
  } else {
    zlog_err("hal: client %d: process %d is stuck for %lld s, it has to end", client, pid,
             static_cast<long long>(holder.silent_s));
  }
  return true;
}

// Ends the process that has the lock, if that is frozen. True when the lock may be free now.
bool make_room(int client, int lock) {
  LockHolder holder;
  if (!process_lock_holder(lock, &holder) || !is_frozen(client, holder)) {
    return false;
  }
  return process_end(holder, signals_poll);
}

// Takes the client number for the life of this process. Returns 0, or -1; does not return when
// another process works under that number.
int hold_client(int client) {
  if (held_client == client) {
    return 0;
  }
  UniqueFd lock(open_lock(client));
  if (!lock.valid()) {
    zlog_err("hal: client %d: no lock file: %s", client, strerror(-lock.get()));
    return -1;
  }
  int error = process_lock_try(lock.get());
  if (error == EWOULDBLOCK && make_room(client, lock.get())) {
    error = process_lock_try(lock.get());
  }
  if (error == EWOULDBLOCK && signals_held()) {
    return -1;  // a signal to end came while it waited: signal_init comes next
  }
  if (error == EWOULDBLOCK) {
    zlog_err("hal: client %d is another process that runs already", client);
    exit(1);
  }
  if (error != 0) {
    zlog_err("hal: client %d: no lock: %s", client, strerror(error));
    return -1;
  }
  process_lock_keep(lock.release());
  held_client = client;
  return 0;
}

// An opening waits for the saved configuration, which may say the opposite.
bool opening_waits = false;

int tell_gate(bool open) {
  return morva_tell("hal", "qel_enable", number_object("enable", open ? 1 : 0));
}

void open_at_last() {
  if (opening_waits) {
    opening_waits = false;
    tell_gate(true);
  }
}

}  // namespace

// The agent attaches before it waits for the rest of the switch, so it is no failure here that
// nobody answers yet: nothing on this platform depends on having been told.
int hal_init(int client) {
  signals_hold();  // morvad ends who is attached, and the daemon has bound no signal yet
  const int held = hold_client(client);
  static char reply[256];
  char request[96];
  const int length =
      snprintf(request, sizeof request,
               "{\"mdl\":\"hal\",\"cmd\":\"init\",\"data\":{\"client\":%d}}", client);
  if (length > 0) {
    morva_call("hal", request, reply, sizeof reply, morva_deadline_ms());
  }
  return held;
}

int hal_qel_enable(int enable) {
  opening_waits = enable != 0 && !loop_configured();
  if (opening_waits) {
    loop_at_start(StartStep::kConfigured, open_at_last);
    return 0;
  }
  return tell_gate(enable != 0);
}

int hal_mac_get(hal_mac_entry* entries, uint32_t start, uint32_t batch, uint32_t select,
                uint32_t* count, uint32_t /*reserved1*/, uint32_t /*reserved2*/,
                uint32_t /*reserved3*/) {
  *count = 0;
  while (*count < batch) {
    const uint32_t wanted = batch - *count < kChunk ? batch - *count : kChunk;
    const long got = read_chunk(entries + *count, start + *count, wanted, select);
    if (got < 0) {
      *count = 0;
      return -1;
    }
    *count += static_cast<uint32_t>(got);
    if (got < wanted) {
      break;
    }
  }
  return 0;
}
