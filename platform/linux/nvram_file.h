// SPDX-License-Identifier: Apache-2.0
//
// What the reader (nvram.cpp) and the writer (nvram_write.cpp) of the settings file share. Nobody
// else includes this; the rest of the platform uses nvram.h.
#ifndef MORVA_LINUX_NVRAM_FILE_H
#define MORVA_LINUX_NVRAM_FILE_H

#include <stddef.h>
#include <sys/stat.h>

// A file in memory; `data` is from malloc, not NUL-terminated, and null when `length` is 0 or
// failed.
struct nvram_text {
  char* data;
  size_t length;
};

enum class nvram_line_kind { pair, comment, rubbish };

// One line of the text, without its line end.
struct nvram_line {
  char* start;
  size_t length;
  size_t key_length;  // of a pair: the '=' stands at start[key_length]
  nvram_line_kind kind;
};

// Reads the file at `path`; the caller frees text->data. Fills `info` as soon as the file is open.
// Returns 0, -EFBIG (the first kNvramFileMax bytes were read), or another negative errno (no data).
int nvram_load(const char* path, nvram_text* text, struct stat* info);

// The next line from *position on, which is moved behind it. False at the end of the text; a last
// line without its line end is torn and not delivered.
bool nvram_next_line(char* text, size_t length, size_t* position, nvram_line* line);

#endif  // MORVA_LINUX_NVRAM_FILE_H
