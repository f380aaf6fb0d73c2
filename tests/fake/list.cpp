// SPDX-License-Identifier: Apache-2.0
//
// The linked list as its header says. Lists are never freed by their users; this file remembers
// them, so that the lists of earlier tests count as held, not as leaked.
#include "platform/list.h"

#include <cstdlib>
#include <vector>

#include "platform/log.h"
#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

namespace {

std::vector<struct list*>& all_lists() {
  static auto* const instance = new std::vector<struct list*>;
  return *instance;
}

size_t g_nodes_made = 0;

}  // namespace

extern "C" {

struct list* list_new(void) {
  fake::internal::record("list_new()");
  if (fake::internal::platform_fails("list_new")) {
    return nullptr;
  }
  auto* const created = new (struct list)();
  all_lists().push_back(created);
  return created;
}

void listnode_add(struct list* list, void* data) {
  ++g_nodes_made;
  auto* const node = new listnode{nullptr, list->tail, data};
  if (list->tail == nullptr) {
    list->head = node;
  } else {
    list->tail->next = node;
  }
  list->tail = node;
  ++list->count;
}

void listnode_delete(struct list* list, void* data) {
  for (listnode* node = list->head; node != nullptr; node = node->next) {
    if (node->data != data) {
      continue;
    }
    (node->prev == nullptr ? list->head : node->prev->next) = node->next;
    (node->next == nullptr ? list->tail : node->next->prev) = node->prev;
    --list->count;
    delete node;
    if (list->del != nullptr) {
      list->del(data);
    }
    return;
  }
}

void* listnode_head(struct list* list) {
  return list->head == nullptr ? nullptr : list->head->data;
}

}  // extern "C"

namespace fake {

size_t list_nodes_made() {
  return g_nodes_made;
}

}  // namespace fake

namespace fake::internal {

// The lists stay: globals of the agent may point to them until the agent is set up again.
void reset_list() {}

}  // namespace fake::internal
