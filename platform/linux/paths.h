// SPDX-License-Identifier: Apache-2.0
//
// Where the platform keeps its things on a Linux machine. Every absolute path of the library and of
// morvad goes through morva_path(), so that tests can point all of them into a folder of their own.
#ifndef MORVA_LINUX_PATHS_H
#define MORVA_LINUX_PATHS_H

#include <stddef.h>

#define MORVA_RUN_DIR "/var/run/morva"
#define MORVA_NVRAM_FILE "/var/conf/nvram.conf"
#define MORVA_NVRAM_TEMP_FILE "/var/run/morva/nvram.tmp.conf"

// Bytes that hold every path the platform builds, closing NUL included.
constexpr size_t kMorvaPathSize = 512;

// Writes the place of `path` (absolute) into `buffer`: the path itself, or the path below the
// folder that the environment variable MORVA_ROOT names. Returns `buffer`; it holds "" when `size`
// is too small, which no file operation accepts as a name.
const char* morva_path(char* buffer, size_t size, const char* path);

#endif  // MORVA_LINUX_PATHS_H
