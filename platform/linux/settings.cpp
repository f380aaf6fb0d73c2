// SPDX-License-Identifier: Apache-2.0
//
// The settings calls of platform/sys.h over the files of nvram.h: a temporary store, which lasts
// until the next restart, in front of the persistent one.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/linux/loop_internal.h"
#include "platform/linux/nvram.h"
#include "platform/linux/paths.h"
#include "platform/log.h"
#include "platform/sys.h"

namespace {

// One of the two stores: its file, what was last read of it, how the last writing ended.
struct settings_store {
  const char* file;
  nvram_cache cache;
  int error;           // 0, or a negative errno
  unsigned long turn;  // of the loop, in which the file was last looked at; 0: none
};

settings_store temporary = {MORVA_NVRAM_TEMP_FILE, {}, 0, 0};
settings_store persistent = {MORVA_NVRAM_FILE, {}, 0, 0};

// A report asks for hundreds of settings: the file is looked at once in a callback of the loop.
const char* look_up(settings_store* store, const char* key) {
  const unsigned long turn = loop_turn();
  if (turn != 0 && turn == store->turn) {
    return nvram_cache_find(&store->cache, key);
  }
  store->turn = turn;
  char path[kMorvaPathSize];
  return nvram_cache_get(&store->cache, morva_path(path, sizeof path, store->file), key);
}

// Null when the key is in neither store.
const char* find(const char* key) {
  if (!nvram_key_valid(key)) {
    return nullptr;
  }
  const char* value = look_up(&temporary, key);
  return value != nullptr ? value : look_up(&persistent, key);
}

bool parse_int(const char* text, int* value) {
  const char* digits = *text == '-' ? text + 1 : text;
  if (*digits < '0' || *digits > '9') {
    return false;
  }
  char* end = nullptr;
  const long long number = strtoll(text, &end, 10);
  if (*end != '\0' || number < INT_MIN || number > INT_MAX) {
    return false;
  }
  *value = static_cast<int>(number);
  return true;
}

// A disk that stays full would otherwise say so every second.
void note_result(settings_store* store, int result) {
  if (result == store->error) {
    return;
  }
  if (result != 0) {
    zlog_err("settings cannot be stored in %s: %s", store->file, strerror(-result));
  } else {
    zlog_notice("settings can be stored in %s again", store->file);
  }
  store->error = result;
}

int store_int(settings_store* store, const char* key, int value) {
  if (!nvram_key_valid(key)) {
    zlog_err("settings: \"%s\" is no key", key != nullptr ? key : "");
    return -1;
  }
  char text[16];
  snprintf(text, sizeof text, "%d", value);
  char path[kMorvaPathSize];
  loop_new_turn();
  const int result = nvram_file_set(morva_path(path, sizeof path, store->file), key, text);
  note_result(store, result);
  return result == 0 ? 0 : -1;
}

}  // namespace

const char* nvram_safe_get(const char* key) {
  static char text[NVRAM_VALUE_SIZE];
  const char* value = find(key);
  snprintf(text, sizeof text, "%s", value != nullptr ? value : "");
  return text;
}

int nvram_get_int(const char* key) {
  return nvram_get_int_default(key, 0);
}

int nvram_get_int_default(const char* key, int fallback) {
  const char* value = find(key);
  int number = 0;
  return value != nullptr && parse_int(value, &number) ? number : fallback;
}

int nvram_set_int(const char* key, int value) {
  return store_int(&persistent, key, value);
}

int nvram_set_int_temp(const char* key, int value) {
  return store_int(&temporary, key, value);
}
