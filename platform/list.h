/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The linked list of the morva platform: doubly linked, append at the tail, data by pointer.
 * Walk it by `head` and `next`. A node without data is a broken invariant of whoever added it.
 */
#ifndef MORVA_PLATFORM_LIST_H
#define MORVA_PLATFORM_LIST_H

#ifdef __cplusplus
extern "C" {
#endif

struct listnode {
  struct listnode* next; /* NULL at the tail */
  struct listnode* prev; /* NULL at the head */
  void* data;            /* owned by the list only if `del` is set */
};

struct list {
  struct listnode* head; /* NULL when empty */
  struct listnode* tail;
  unsigned count;          /* number of nodes */
  void (*del)(void* data); /* frees an element that listnode_delete removes; NULL: nobody does */
};

/* Creates an empty list (never freed by its users). Returns NULL when memory is short. */
struct list* list_new(void);

/* Appends `data` (not NULL). When memory is short the process ends by zlog_assert_failed. */
void listnode_add(struct list* list, void* data);

/*
 * Removes the first node whose data pointer is `data`, and hands the data to `del` if that is set.
 * Nothing happens when no node holds it. Invalidates that node only.
 */
void listnode_delete(struct list* list, void* data);

/* The data of the first node; NULL when the list is empty. */
void* listnode_head(struct list* list);

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_LIST_H */
