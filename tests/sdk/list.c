/* SPDX-License-Identifier: Apache-2.0 */
/* The linked list of the stand-in SDK. */
#include "platform/list.h"

#include <stdlib.h>

#include "platform/log.h"

struct list* list_new(void) {
  return calloc(1, sizeof(struct list));
}

void listnode_add(struct list* list, void* data) {
  struct listnode* node = calloc(1, sizeof *node);
  if (node == NULL) {
    zlog_assert_failed("node != NULL", "list.c", __LINE__, __func__);
  }
  node->data = data;
  node->prev = list->tail;
  if (list->tail != NULL) {
    list->tail->next = node;
  } else {
    list->head = node;
  }
  list->tail = node;
  ++list->count;
}

void listnode_delete(struct list* list, void* data) {
  struct listnode* node = list->head;
  while (node != NULL && node->data != data) {
    node = node->next;
  }
  if (node == NULL) {
    return;
  }
  *(node->prev != NULL ? &node->prev->next : &list->head) = node->next;
  *(node->next != NULL ? &node->next->prev : &list->tail) = node->prev;
  --list->count;
  if (list->del != NULL) {
    list->del(node->data);
  }
  free(node);
}

void* listnode_head(struct list* list) {
  return list->head != NULL ? list->head->data : NULL;
}
