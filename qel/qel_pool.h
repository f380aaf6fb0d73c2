// SPDX-License-Identifier: Apache-2.0
//
// A pool of fixed-size records on a used and a free list, grown in blocks and recycled by age.
// Records never go back to the heap: steady traffic allocates nothing.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "platform/list.h"
#include "platform/log.h"
#include "qel/qel_os.h"

// `Record` is plain data with a member `time` (seconds since the epoch).
template <typename Record>
struct qel_pool {
  struct list* used = nullptr;
  struct list* free = nullptr;
  uint32_t total = 0;  // records allocated

  void create() {
    used = list_new();
    free = list_new();
  }

  // Adds `count` zeroed records in one block. Without memory the process ends, told with `function`
  // of `file`. The block comes zeroed from the system, so pages that nobody touches cost nothing.
  void expand(uint32_t count, const char* file, unsigned line, const char* function) {
    auto* block = static_cast<Record*>(std::calloc(count, sizeof(Record)));
    if (block == nullptr) {
      zlog_assert_failed("block != ((void *)0)", file, line, function);
    }
    for (uint32_t i = 0; i < count; ++i) {
      listnode_add(free, &block[i]);
    }
    total += count;
  }

  // Frees every used record whose time is `lifetime` seconds or more in the past. One without a
  // time is as old as can be, also on a clock so late that the difference would turn negative.
  void recycle(int32_t lifetime) {
    const auto now = static_cast<uint32_t>(qel_os_time());
    for (struct listnode* node = used->head; node != nullptr;) {
      auto* record = static_cast<Record*>(node->data);
      node = node->next;
      if (record->time == 0 || static_cast<int32_t>(now - record->time) >= lifetime) {
        release(record);
      }
    }
  }

  // Takes the first free record and puts it on the used list; null when none is free.
  Record* take() {
    auto* record = static_cast<Record*>(listnode_head(free));
    if (record != nullptr) {
      listnode_delete(free, record);
      listnode_add(used, record);
    }
    return record;
  }

  // Moves a used record to the free list, zeroed.
  void release(Record* record) {
    listnode_delete(used, record);
    *record = Record{};
    listnode_add(free, record);
  }

  // The first used record that `matches`, or null.
  template <typename Matches>
  Record* find(Matches matches) const {
    for (const struct listnode* node = used->head; node != nullptr; node = node->next) {
      auto* record = static_cast<Record*>(node->data);
      if (matches(*record)) {
        return record;
      }
    }
    return nullptr;
  }
};
