/* SPDX-License-Identifier: Apache-2.0 */
/* The interface cache and the interface manager's client of the stand-in SDK: two ports. */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/log.h"
#include "platform/uclient.h"
#include "platform/uif.h"

struct uclient_msg {
  int unused;
};

struct list* g_uif_list;
int g_port_max;

static void add(uint32_t index, const char* name, int port_no, int link) {
  struct uif* uif = calloc(1, sizeof *uif);
  if (uif == NULL) {
    abort();
  }
  uif->index = index;
  snprintf(uif->name, sizeof uif->name, "%s", name);
  uif->port_no = port_no;
  uif->speed_class = UIF_CLASS_GIGA;
  uif->medium = UIF_MEDIUM_COPPER;
  uif->max_speed = 1000;
  uif->speed = link != 0 ? 1000 : 0;
  uif->duplex = link;
  uif->pos_x = port_no;
  uif->pos_y = 1;
  uif->aux_index = -1;
  uif->link = link;
  listnode_add(g_uif_list, uif);
}

void uif_init(void) {
  g_uif_list = list_new();
  add(0x01000001, "ge1", 1, 1);
  add(0x01000002, "ge2", 2, 0);
  add(1, "vlanif1", 0, 1);
  g_port_max = 2;
}

void uvlan_init(void) {}

struct uif* uif_lookup_by_name(const char* name) {
  for (const struct listnode* node = g_uif_list->head; node != NULL; node = node->next) {
    struct uif* uif = node->data;
    if (name != NULL && strcmp(uif->name, name) == 0) {
      return uif;
    }
  }
  return NULL;
}

struct uif* uif_get_by_name(const char* name) {
  return uif_lookup_by_name(name);
}

struct uif* uif_lookup_by_index(uint32_t index) {
  for (const struct listnode* node = g_uif_list->head; node != NULL; node = node->next) {
    struct uif* uif = node->data;
    if (uif->index == index) {
      return uif;
    }
  }
  return NULL;
}

struct uif* uif_lookup_by_port_index(int port_index) {
  for (const struct listnode* node = g_uif_list->head; node != NULL; node = node->next) {
    struct uif* uif = node->data;
    if (uif_index_is_port(uif->index) && uif->port_no == port_index + 1) {
      return uif;
    }
  }
  return NULL;
}

int uif_is_enable(const struct uif* uif) {
  return (uif->flags & UIF_FLAG_DISABLED) == 0;
}

int uif_is_linkup(const struct uif* uif) {
  return uif->link != 0;
}

/* There is no manager: the connection is a pair of sockets on which nothing ever comes. */
struct uclient* uclient_connect(uint32_t address, unsigned short port, unsigned short listen_port) {
  static struct uclient client;
  struct sockaddr_in here = {.sin_family = AF_INET, .sin_port = htons(listen_port)};
  int pair[2];
  here.sin_addr.s_addr = htonl(address);
  fprintf(stderr, "sdk: uclient_connect 0x%x %u %u\n", address, port, listen_port);
  client.listen_fd = socket(AF_INET, SOCK_STREAM, 0);
  if (client.listen_fd < 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0 ||
      bind(client.listen_fd, (const struct sockaddr*)&here, sizeof here) != 0 ||
      listen(client.listen_fd, 1) != 0) {
    return NULL;
  }
  client.conn_fd = pair[0];
  return &client;
}

int uclient_handle_async(struct uclient* client, int fd) {
  char bytes[256];
  (void)client;
  return read(fd, bytes, sizeof bytes) > 0 ? 0 : -1;
}

int uclient_new_if(struct uclient* client, const struct uclient_msg* msg) {
  (void)client;
  (void)msg;
  return -1;
}

struct uif* uclient_if_status(struct uclient* client, const struct uclient_msg* msg) {
  (void)client;
  (void)msg;
  return NULL;
}

int uclient_trunk_set(struct uclient* client, const struct uclient_msg* msg) {
  (void)client;
  (void)msg;
  return -1;
}

int uclient_mirror_get(struct uclient* client, const struct uclient_msg* msg) {
  (void)client;
  (void)msg;
  return -1;
}
