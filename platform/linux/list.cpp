// SPDX-License-Identifier: Apache-2.0
//
// The linked list of platform/list.h.
#include "platform/list.h"

#include <stdlib.h>

#include "platform/log.h"

list* list_new(void) {
  return static_cast<list*>(calloc(1, sizeof(list)));
}

void listnode_add(list* list, void* data) {
  listnode* node = static_cast<listnode*>(calloc(1, sizeof(listnode)));
  if (node == nullptr) {
    zlog_assert_failed("node != NULL", "platform/linux/list", __LINE__, __func__);
  }
  node->data = data;
  node->prev = list->tail;
  if (list->tail != nullptr) {
    list->tail->next = node;
  } else {
    list->head = node;
  }
  list->tail = node;
  ++list->count;
}

void listnode_delete(list* list, void* data) {
  listnode* node = list->head;
  while (node != nullptr && node->data != data) {
    node = node->next;
  }
  if (node == nullptr) {
    return;
  }
  (node->prev != nullptr ? node->prev->next : list->head) = node->next;
  (node->next != nullptr ? node->next->prev : list->tail) = node->prev;
  --list->count;
  free(node);
  if (list->del != nullptr && data != nullptr) {
    list->del(data);
  }
}

void* listnode_head(list* list) {
  return list != nullptr && list->head != nullptr ? list->head->data : nullptr;
}
