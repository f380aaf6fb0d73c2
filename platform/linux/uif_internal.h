// SPDX-License-Identifier: Apache-2.0
//
// The writing side of the interface cache (platform/uif.h): rows and messages of the interface
// manager become records. uif.cpp owns it; uclient.cpp applies what it hears through it.
#ifndef MORVA_LINUX_UIF_INTERNAL_H
#define MORVA_LINUX_UIF_INTERNAL_H

#include "platform/uif.h"

struct cJSON;

// The highest port number, and the most interfaces, that the cache takes.
constexpr int kUifPortMax = 255;
constexpr unsigned kUifCountMax = 4096 + kUifPortMax;

// Adds the interface that `row` describes, or brings the record of that name up to date; the slot
// `info` is left alone. All or nothing: null, with a line in the log, when a member is missing, of
// the wrong kind or out of range, or when the row contradicts another record (index, port number).
uif* uif_apply_row(const cJSON* row);

// Takes link, speed, duplex, enable and speed_conf, as far as they are there, from `message` into
// the record that its "name" names. All or nothing: null when the name is unknown or a number is no
// good.
uif* uif_apply_status(const cJSON* message);

// Frees every record and empties the cache, for tests: a daemon keeps pointers to records.
void uif_clear();

#endif  // MORVA_LINUX_UIF_INTERNAL_H
