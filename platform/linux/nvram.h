// SPDX-License-Identifier: Apache-2.0
//
// The settings store as a file: lines of key=value. The library in the agent reads and writes
// single settings; morvad also fills in and restores the factory's. Both link this code (target
// morva_nvram), so there is one reader and one writer of the format.
//
// Keys are 1..63 of [A-Za-z0-9._-]; values are up to 255 bytes, none of them a control byte. A line
// that is anything else (torn, overlong, without '=', or the last one without its line end) is
// skipped alone. Of two lines with one key the later counts. Lines that begin with '#' are
// comments.
//
// Writers hold flock() on .nvram.lock beside the file, write .nvram.tmp, fsync, rename, and fsync
// the folder: readers need no lock, they see the old file or the new one.
#ifndef MORVA_LINUX_NVRAM_H
#define MORVA_LINUX_NVRAM_H

#include <stddef.h>
#include <sys/stat.h>

// One setting to store. A null value takes the key out of the file.
struct nvram_pair {
  const char* key;
  const char* value;
};

// Files above this many bytes are not written, and only this much of them is read.
constexpr size_t kNvramFileMax = 1048576;

// How long a writer waits for another one that holds the lock, in milliseconds.
constexpr int kNvramLockWaitMs = 500;

bool nvram_key_valid(const char* key);
bool nvram_value_valid(const char* value);

// Reads the value of `key` from the file at `path` into `buffer` (NUL-terminated). Returns false,
// with
// "" in `buffer`, when the key is not there, the file cannot be read, or the value does not fit;
// NVRAM_VALUE_SIZE bytes (platform/sys.h) hold every value.
bool nvram_file_get(const char* path, const char* key, char* buffer, size_t size);

// The writers below return 0 when the new values are on the disk, or a negative errno: then the
// file is as it was (except that after -EIO from the very last step the values may be there or
// not).
//   -EINVAL  a key or value that the format cannot hold
//   -EAGAIN  another writer kept the lock for kNvramLockWaitMs
//   -EFBIG   the file is, or would be, above kNvramFileMax
//   others   as the system reports them (-ENOENT: no such folder, -ENOSPC, -EROFS ...)

// Stores one setting; a null `value` removes it.
int nvram_file_set(const char* path, const char* key, const char* value);

// Stores `count` settings in one step: all of them or none.
int nvram_file_set_many(const char* path, const nvram_pair* pairs, size_t count);

// Stores those of the settings whose keys are not in the file yet; writes nothing if all are.
int nvram_file_fill(const char* path, const nvram_pair* pairs, size_t count);

// Makes the file hold these settings and nothing else.
int nvram_file_replace_all(const char* path, const nvram_pair* pairs, size_t count);

// A reader that keeps the parsed file and reads it again only when it was replaced or changed: one
// stat() for a look-up. Zero-initialise it; it belongs to one thread.
struct nvram_cache {
  struct stat seen;     // what stat() said when the file was read
  char* text;           // the file; keys and values point into it
  nvram_pair* entries;  // by the hash of the key; at least half of them empty
  size_t mask;          // one less than their number, a power of two
  bool loaded;
  bool recent;  // read so soon after a change that a further one may look the same
};

// The value of `key` in the file at `path`, or null when it is not there. Valid until the next call
// with the same cache.
const char* nvram_cache_get(nvram_cache* cache, const char* path, const char* key);

// The same out of what was read last, without a look at the file.
const char* nvram_cache_find(const nvram_cache* cache, const char* key);

// Forgets what was read.
void nvram_cache_clear(nvram_cache* cache);

#endif  // MORVA_LINUX_NVRAM_H
