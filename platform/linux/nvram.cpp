// SPDX-License-Identifier: Apache-2.0
//
// Reading of the settings file, see nvram.h. The writers are in nvram_write.cpp.
#include "platform/linux/nvram.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <array>

#include "platform/linux/fd.h"
#include "platform/linux/nvram_file.h"
#include "platform/sys.h"

namespace {

// The kernel stamps files with the time of its last tick (up to 10 ms old). A file that is younger
// than this when it is read may change again under the same stamp.
constexpr long long kRecentNs = 50000000;

constexpr std::array<bool, 256> make_key_bytes() {
  std::array<bool, 256> table = {};
  for (const char* at = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
       *at != '\0'; ++at) {
    table[static_cast<unsigned char>(*at)] = true;
  }
  return table;
}

constexpr std::array<bool, 256> kKeyBytes = make_key_bytes();

bool is_key_byte(unsigned char c) {
  return kKeyBytes[c];
}

bool is_value_byte(unsigned char c) {
  return c >= 0x20 && c != 0x7f;
}

// Splits the line [line, line + length) at its '='. True when both sides are what the format
// allows.
bool parse_line(char* line, size_t length, size_t* key_length) {
  const char* equals = static_cast<const char*>(memchr(line, '=', length));
  if (equals == nullptr) {
    return false;
  }
  *key_length = static_cast<size_t>(equals - line);
  const size_t value_length = length - *key_length - 1;
  if (*key_length == 0 || *key_length >= NVRAM_KEY_SIZE || value_length >= NVRAM_VALUE_SIZE) {
    return false;
  }
  for (size_t i = 0; i < *key_length; ++i) {
    if (!is_key_byte(static_cast<unsigned char>(line[i]))) {
      return false;
    }
  }
  for (size_t i = *key_length + 1; i < length; ++i) {
    if (!is_value_byte(static_cast<unsigned char>(line[i]))) {
      return false;
    }
  }
  return true;
}

uint32_t hash_of(const char* key) {
  uint32_t hash = 2166136261U;
  for (; *key != '\0'; ++key) {
    hash = (hash ^ static_cast<unsigned char>(*key)) * 16777619U;
  }
  return hash ^ (hash >> 16);
}

// The place of `key`: its entry, or the empty one where it belongs. At least half of the places are
// empty, so the search ends.
nvram_pair* place_of(const nvram_cache* cache, const char* key) {
  size_t at = hash_of(key) & cache->mask;
  while (cache->entries[at].key != nullptr && strcmp(cache->entries[at].key, key) != 0) {
    at = (at + 1) & cache->mask;
  }
  return &cache->entries[at];
}

bool same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
         a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

bool changed_recently(const struct stat& info) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const long long seconds = static_cast<long long>(now.tv_sec) - info.st_ctim.tv_sec;
  if (seconds < -1 || seconds > 1) {
    return false;
  }
  const long long age = seconds * 1000000000LL + (now.tv_nsec - info.st_ctim.tv_nsec);
  return age > -kRecentNs && age < kRecentNs;
}

// Takes the text of `file` over into the cache and indexes it. False when memory is short.
bool index_text(nvram_cache* cache, nvram_text* file) {
  size_t lines = 0;
  for (size_t i = 0; i < file->length; ++i) {
    lines += file->data[i] == '\n' ? 1 : 0;
  }
  size_t places = 2;
  while (places < 2 * (lines + 1)) {
    places *= 2;
  }
  cache->entries = static_cast<nvram_pair*>(calloc(places, sizeof(nvram_pair)));
  if (cache->entries == nullptr) {
    return false;
  }
  cache->mask = places - 1;
  cache->text = file->data;
  const size_t length = file->length;
  file->data = nullptr;
  file->length = 0;

  nvram_line line = {};
  size_t position = 0;
  while (nvram_next_line(cache->text, length, &position, &line)) {
    if (line.kind != nvram_line_kind::pair) {
      continue;
    }
    line.start[line.key_length] = '\0';
    line.start[line.length] = '\0';
    // Of equal keys the last one counts.
    *place_of(cache, line.start) = {line.start, line.start + line.key_length + 1};
  }
  return true;
}

void load_cache(nvram_cache* cache, const char* path, const struct stat& seen) {
  nvram_cache_clear(cache);
  nvram_text file = {};
  cache->seen = seen;
  const int result = nvram_load(path, &file, &cache->seen);
  if ((result == 0 || result == -EFBIG) && index_text(cache, &file)) {
    cache->loaded = true;
    cache->recent = changed_recently(cache->seen);
  }
  free(file.data);
}

}  // namespace

bool nvram_key_valid(const char* key) {
  if (key == nullptr) {
    return false;
  }
  size_t length = 0;
  while (length < NVRAM_KEY_SIZE && is_key_byte(static_cast<unsigned char>(key[length]))) {
    ++length;
  }
  return length > 0 && length < NVRAM_KEY_SIZE && key[length] == '\0';
}

bool nvram_value_valid(const char* value) {
  if (value == nullptr) {
    return false;
  }
  const size_t length = strnlen(value, NVRAM_VALUE_SIZE);
  for (size_t i = 0; i < length; ++i) {
    if (!is_value_byte(static_cast<unsigned char>(value[i]))) {
      return false;
    }
  }
  return length < NVRAM_VALUE_SIZE;
}

bool nvram_next_line(char* text, size_t length, size_t* position, nvram_line* line) {
  if (*position >= length) {
    return false;
  }
  char* start = text + *position;
  char* end = static_cast<char*>(memchr(start, '\n', length - *position));
  if (end == nullptr) {
    return false;
  }
  line->start = start;
  line->length = static_cast<size_t>(end - start);
  *position += line->length + 1;
  line->key_length = 0;
  if (parse_line(start, line->length, &line->key_length)) {
    line->kind = nvram_line_kind::pair;
  } else {
    line->kind =
        line->length > 0 && *start == '#' ? nvram_line_kind::comment : nvram_line_kind::rubbish;
  }
  return true;
}

int nvram_load(const char* path, nvram_text* text, struct stat* info) {
  text->data = nullptr;
  text->length = 0;
  // O_NONBLOCK: a FIFO in the file's place must not stop the daemon.
  const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd.valid()) {
    return -errno;
  }
  if (fstat(fd.get(), info) != 0) {
    return -errno;
  }
  if (!S_ISREG(info->st_mode)) {
    return -EINVAL;
  }
  const bool too_big = static_cast<unsigned long long>(info->st_size) > kNvramFileMax;
  const size_t room = too_big ? kNvramFileMax : static_cast<size_t>(info->st_size);
  text->data = static_cast<char*>(malloc(room + 1));
  if (text->data == nullptr) {
    return -ENOMEM;
  }
  while (text->length < room) {
    const ssize_t got = read(fd.get(), text->data + text->length, room - text->length);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      const int error = -errno;
      free(text->data);
      text->data = nullptr;
      text->length = 0;
      return error;
    }
    if (got == 0) {
      break;
    }
    text->length += static_cast<size_t>(got);
  }
  return too_big ? -EFBIG : 0;
}

const char* nvram_cache_get(nvram_cache* cache, const char* path, const char* key) {
  struct stat now = {};
  if (stat(path, &now) != 0) {
    nvram_cache_clear(cache);
    return nullptr;
  }
  if (!cache->loaded || cache->recent || !same_file(now, cache->seen)) {
    load_cache(cache, path, now);
  }
  return nvram_cache_find(cache, key);
}

const char* nvram_cache_find(const nvram_cache* cache, const char* key) {
  return cache->entries != nullptr ? place_of(cache, key)->value : nullptr;
}

void nvram_cache_clear(nvram_cache* cache) {
  free(cache->text);
  free(cache->entries);
  *cache = {};
}

bool nvram_file_get(const char* path, const char* key, char* buffer, size_t size) {
  nvram_cache cache = {};
  const char* value = nvram_key_valid(key) ? nvram_cache_get(&cache, path, key) : nullptr;
  const bool fits = value != nullptr && strlen(value) < size;
  if (fits) {
    memcpy(buffer, value, strlen(value) + 1);
  } else if (size > 0) {
    buffer[0] = '\0';
  }
  nvram_cache_clear(&cache);
  return fits;
}
