// SPDX-License-Identifier: Apache-2.0
//
// Writing of the settings file, see nvram.h: lock, new file, fsync, rename, fsync of the folder.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <time.h>

#include "platform/linux/fd.h"
#include "platform/linux/nvram.h"
#include "platform/linux/nvram_file.h"
#include "platform/linux/paths.h"

namespace {

constexpr char kLockName[] = ".nvram.lock";
constexpr char kTempName[] = ".nvram.tmp";
constexpr mode_t kNewFileMode = 0640;
constexpr long kLockPollNs = 5000000;

enum class write_mode { set, fill, replace };

// The settings to store, and which of them the old file already accounted for.
struct change {
  const nvram_pair* pairs;
  size_t count;
  bool* done;
  write_mode mode;
};

// Memory that is given back when the function ends.
struct owned_text {
  nvram_text text = {};
  ~owned_text() { free(text.data); }
};

// A text that grows up to kNvramFileMax; `error` keeps the first failure.
struct growing_text {
  nvram_text text = {};
  size_t room = 0;
  int error = 0;
  ~growing_text() { free(text.data); }

  void append(const char* bytes, size_t length) {
    if (error != 0 || length == 0) {
      return;
    }
    if (length > kNvramFileMax - text.length) {
      error = -EFBIG;
      return;
    }
    if (text.length + length > room) {
      const size_t wanted = (text.length + length) * 2;
      char* grown = static_cast<char*>(realloc(text.data, wanted));
      if (grown == nullptr) {
        error = -ENOMEM;
        return;
      }
      text.data = grown;
      room = wanted;
    }
    memcpy(text.data + text.length, bytes, length);
    text.length += length;
  }

  void append_pair(const nvram_pair& pair) {
    append(pair.key, strlen(pair.key));
    append("=", 1);
    append(pair.value, strlen(pair.value));
    append("\n", 1);
  }
};

// The place of the last pair with this key, or `count`.
size_t find_pair(const nvram_pair* pairs, size_t count, const char* key, size_t length) {
  for (size_t i = count; i > 0; --i) {
    if (strncmp(pairs[i - 1].key, key, length) == 0 && pairs[i - 1].key[length] == '\0') {
      return i - 1;
    }
  }
  return count;
}

// Takes one line of the old file over: as it is, with its new value, or not at all.
void carry_over(const nvram_line& line, const change& change, growing_text* out) {
  if (line.kind == nvram_line_kind::rubbish) {
    return;
  }
  if (line.kind == nvram_line_kind::pair) {
    const size_t at = find_pair(change.pairs, change.count, line.start, line.key_length);
    if (at < change.count && change.mode == write_mode::set) {
      if (!change.done[at] && change.pairs[at].value != nullptr) {
        out->append_pair(change.pairs[at]);
      }
      change.done[at] = true;
      return;
    }
    if (at < change.count) {
      change.done[at] = true;
    }
  }
  out->append(line.start, line.length + 1);
}

void build_text(nvram_text* old, const change& change, growing_text* out) {
  nvram_line line = {};
  size_t position = 0;
  while (change.mode != write_mode::replace &&
         nvram_next_line(old->data, old->length, &position, &line)) {
    carry_over(line, change, out);
  }
  for (size_t i = 0; i < change.count; ++i) {
    const nvram_pair& pair = change.pairs[i];
    const bool last = find_pair(change.pairs, change.count, pair.key, strlen(pair.key)) == i;
    if (last && !change.done[i] && pair.value != nullptr) {
      out->append_pair(pair);
    }
  }
}

// Takes the lock, waiting at most kNvramLockWaitMs: a holder that is stopped must not stop us too.
int take_lock(int folder, UniqueFd* lock) {
  lock->reset(openat(folder, kLockName, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kNewFileMode));
  if (!lock->valid()) {
    return -errno;
  }
  for (long waited = 0; flock(lock->get(), LOCK_EX | LOCK_NB) != 0;) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      return -errno;
    }
    if (waited >= kNvramLockWaitMs * 1000000L) {
      return -EAGAIN;
    }
    const timespec pause = {0, kLockPollNs};
    nanosleep(&pause, nullptr);
    waited += kLockPollNs;
  }
  return 0;
}

int write_all(int fd, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t written = write(fd, data, length);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return written < 0 ? -errno : -ENOSPC;
    }
    data += written;
    length -= static_cast<size_t>(written);
  }
  return 0;
}

// Puts `text` in the place of `name` in `folder`. On failure the old file stays.
int replace_file(int folder, const char* name, const nvram_text& text, mode_t mode) {
  UniqueFd temp(openat(folder, kTempName, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
                       kNewFileMode));
  if (!temp.valid()) {
    return -errno;
  }
  int result = write_all(temp.get(), text.data, text.length);
  if (result == 0 && mode != 0 && fchmod(temp.get(), mode & 0777) != 0) {
    result = -errno;
  }
  if (result == 0 && fsync(temp.get()) != 0) {
    result = -errno;
  }
  if (close(temp.release()) != 0 && result == 0) {
    result = -errno;
  }
  if (result == 0 && renameat(folder, kTempName, folder, name) != 0) {
    result = -errno;
  }
  if (result != 0) {
    unlinkat(folder, kTempName, 0);
    return result;
  }
  // Some file systems cannot sync a folder; the rename is then as durable as they make it.
  return fsync(folder) == 0 || errno == EINVAL ? 0 : -errno;
}

bool pairs_valid(const nvram_pair* pairs, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    if (!nvram_key_valid(pairs[i].key) ||
        (pairs[i].value != nullptr && !nvram_value_valid(pairs[i].value))) {
      return false;
    }
  }
  return true;
}

bool same_text(const nvram_text& a, const nvram_text& b) {
  return a.length == b.length && (a.length == 0 || memcmp(a.data, b.data, a.length) == 0);
}

// With the lock held: reads the old file, makes the new one, puts it in place.
int rewrite(int folder, const char* path, const char* name, const change& change) {
  owned_text old;
  struct stat info = {};
  const int loaded = nvram_load(path, &old.text, &info);
  if (loaded != 0 && loaded != -ENOENT && change.mode != write_mode::replace) {
    return loaded;
  }
  growing_text fresh;
  build_text(&old.text, change, &fresh);
  if (fresh.error != 0) {
    return fresh.error;
  }
  if (change.mode == write_mode::fill && loaded == 0 && same_text(old.text, fresh.text)) {
    return 0;
  }
  return replace_file(folder, name, fresh.text, loaded == 0 ? info.st_mode : 0);
}

int store(const char* path, const nvram_pair* pairs, size_t count, write_mode mode) {
  const char* slash = strrchr(path, '/');
  if (slash == nullptr || !pairs_valid(pairs, count)) {
    return -EINVAL;
  }
  char folder_path[kMorvaPathSize];
  const int length =
      snprintf(folder_path, sizeof folder_path, "%.*s", static_cast<int>(slash - path) + 1, path);
  if (length < 0 || static_cast<size_t>(length) >= sizeof folder_path) {
    return -ENAMETOOLONG;
  }
  const UniqueFd folder(open(folder_path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid()) {
    return -errno;
  }
  UniqueFd lock;
  const int locked = take_lock(folder.get(), &lock);
  if (locked != 0) {
    return locked;
  }
  change work = {pairs, count, static_cast<bool*>(calloc(count + 1, sizeof(bool))), mode};
  if (work.done == nullptr) {
    return -ENOMEM;
  }
  const int result = rewrite(folder.get(), path, slash + 1, work);
  free(work.done);
  return result;
}

}  // namespace

int nvram_file_set(const char* path, const char* key, const char* value) {
  const nvram_pair pair = {key, value};
  return store(path, &pair, 1, write_mode::set);
}

int nvram_file_set_many(const char* path, const nvram_pair* pairs, size_t count) {
  return store(path, pairs, count, write_mode::set);
}

int nvram_file_fill(const char* path, const nvram_pair* pairs, size_t count) {
  return store(path, pairs, count, write_mode::fill);
}

int nvram_file_replace_all(const char* path, const nvram_pair* pairs, size_t count) {
  return store(path, pairs, count, write_mode::replace);
}
