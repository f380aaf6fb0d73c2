// SPDX-License-Identifier: Apache-2.0
//
// A pool of fixed-size records on a used and a free list, grown in blocks and recycled by age.
// Records never go back to the heap, and a record changes lists together with its node: steady
// traffic allocates nothing.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "platform/list.h"
#include "platform/log.h"
#include "qel/qel_os.h"

// Takes `node` out of `from` and appends it to `to`. The platform's own calls would free a node and
// make another.
inline void qel_pool_move(struct list* from, struct list* to, struct listnode* node) {
  (node->prev != nullptr ? node->prev->next : from->head) = node->next;
  (node->next != nullptr ? node->next->prev : from->tail) = node->prev;
  --from->count;
  node->next = nullptr;
  node->prev = to->tail;
  (to->tail != nullptr ? to->tail->next : to->head) = node;
  to->tail = node;
  ++to->count;
}

// `Record` is plain data with a member `time` (seconds since the epoch).
template <typename Record>
struct qel_pool {
  struct list* used = nullptr;
  struct list* free = nullptr;
  uint32_t total = 0;  // records allocated

  // Makes the lists. Without memory the process ends, told with `function` of `file`.
  void create(const char* file, unsigned line, const char* function) {
    used = list_new();
    free = list_new();
    if (used == nullptr || free == nullptr) {
      zlog_assert_failed("used != ((void *)0) && free != ((void *)0)", file, line, function);
    }
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

  // Calls visit(record) for each used record in order until it returns false; the record may be
  // released by it. A node without data is a broken invariant and ends the process, told with
  // `function` of `file`.
  template <typename Visit>
  void walk(const char* file, unsigned line, const char* function, Visit visit) const {
    for (const struct listnode* node = used->head; node != nullptr;) {
      auto* record = static_cast<Record*>(node->data);
      if (record == nullptr) {
        zlog_assert_failed("(node)->data != ((void *)0)", file, line, function);
      }
      node = node->next;
      if (!visit(record)) {
        return;
      }
    }
  }

  // Frees every used record whose time is `lifetime` seconds or more in the past. One without a
  // time is as old as can be, also on a clock so late that the difference would turn negative.
  // Walks for `function` of `file`.
  void recycle(int32_t lifetime, const char* file, unsigned line, const char* function) {
    const auto now = static_cast<uint32_t>(qel_os_time());
    walk(file, line, function, [this, now, lifetime](Record* record) {
      if (record->time == 0 || static_cast<int32_t>(now - record->time) >= lifetime) {
        release(record);
      }
      return true;
    });
  }

  // Takes the first free record, of which there must be one, and puts it on the used list.
  Record* take() {
    struct listnode* node = free->head;
    qel_pool_move(free, used, node);
    return static_cast<Record*>(node->data);
  }

  // Moves a used record to the free list, zeroed. One that is not used is left alone.
  void release(Record* record) {
    struct listnode* node = used->head;
    while (node != nullptr && node->data != record) {
      node = node->next;
    }
    if (node == nullptr) {
      return;
    }
    *record = Record{};
    qel_pool_move(used, free, node);
  }

  // The first used record that `matches`, or null. Walks for `function` of `file`.
  template <typename Matches>
  Record* find(const char* file, unsigned line, const char* function, Matches matches) const {
    Record* found = nullptr;
    walk(file, line, function, [&found, matches](Record* record) {
      found = matches(*record) ? record : nullptr;
      return found == nullptr;
    });
    return found;
  }
};
