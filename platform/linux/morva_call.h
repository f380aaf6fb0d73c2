// SPDX-License-Identifier: Apache-2.0
//
// How the library talks to the modules of the switch: one Unix stream connection for each query,
// /var/run/morva/<module>.sock. jclient.cpp is the agent's door to it; uif.cpp, hal.cpp, sys.cpp
// and firmware.cpp ask morvad's internal modules ("ifmgr", "hal", "sys") with the JSON form below.
#ifndef MORVA_LINUX_MORVA_CALL_H
#define MORVA_LINUX_MORVA_CALL_H

#include <stddef.h>
#include <stdint.h>

struct cJSON;

// Bytes of a module's name, closing NUL included; names are [a-z0-9_].
constexpr size_t kMorvaModuleSize = 33;

// True when `name` is a module's name, and so may become part of a path.
bool morva_module_valid(const char* name);

// Now, on a clock that never goes back, in nanoseconds.
int64_t morva_now_ns();

// How long a query may take, in milliseconds: 2000, or what MORVA_QUERY_DEADLINE_MS says.
int morva_deadline_ms();

// How long a starting daemon waits for morvad, in milliseconds: 10000, or what MORVA_START_WAIT_MS
// says.
int morva_start_wait_ms();

// Sends `request` to `module` and reads the reply into `reply` (`reply_size` bytes) with a closing
// NUL, all within `deadline_ms`. With a null `reply` the request is handed over without any
// waiting. Returns the length of the reply (0 without one), or -1 when the request could not be
// delivered, or the reply was empty, too long, held a NUL, was cut off or late; `reply` then holds
// rubbish.
long morva_call(const char* module, const char* request, char* reply, size_t reply_size,
                int deadline_ms);

// Asks {"mdl":module,"cmd":command,"data":data} within `deadline_ms` and parses the answer. `data`
// is null or a tree that this call takes over. Returns the answer's tree, which the caller deletes,
// when its "ret" is 0; otherwise null. Logs nothing: it may be tried until a module is up.
cJSON* morva_ask_quietly(const char* module, const char* command, cJSON* data, int deadline_ms);

// The same with the usual deadline. The log hears when questions begin to fail and when they
// succeed again, not of each.
cJSON* morva_ask(const char* module, const char* command, cJSON* data);

// The same where the answer's "ret" is all that counts. Returns 0, or -1.
int morva_tell(const char* module, const char* command, cJSON* data);

#endif  // MORVA_LINUX_MORVA_CALL_H
