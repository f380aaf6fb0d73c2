/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The interface cache of the morva platform: one record for each interface of the switch, kept
 * current by the interface manager's messages (platform/uclient.h). A daemon reads the records and
 * owns only the slot `info`.
 */
#ifndef MORVA_PLATFORM_UIF_H
#define MORVA_PLATFORM_UIF_H

#include <stdint.h>

#include "platform/list.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  UIF_NAME_SIZE = 32, /* bytes of an interface name, closing NUL included */

  UIF_CLASS_FAST = 1, /* speed_class: Fast Ethernet, Gigabit, 10-Gigabit */
  UIF_CLASS_GIGA = 2,
  UIF_CLASS_TEN_GIGA = 3,

  UIF_MEDIUM_COPPER = 1,
  UIF_MEDIUM_FIBRE = 2,
};

/* `flags` bit: administratively disabled. */
#define UIF_FLAG_DISABLED ((uint64_t)1)

struct uif {
  uint32_t index;           /* non-zero top byte: a physical switch port */
  void* info;               /* the daemon's own data; NULL until the daemon sets it */
  char name[UIF_NAME_SIZE]; /* "ge1", "vlanif1"; NUL-terminated; no '"', '\' or control byte */
  int32_t port_no;          /* the port's number, from 1; 0 for other interfaces */
  int32_t speed_class;      /* UIF_CLASS_... */
  int32_t medium;           /* UIF_MEDIUM_... */
  int32_t max_speed;        /* of the hardware, Mbit/s */
  int32_t speed;            /* of the link, Mbit/s; 0 without link */
  int32_t duplex;           /* of the link: 1 full, 0 half or no link */
  int32_t speed_conf;       /* configured speed: code 0..14, 0 = autonegotiation */
  int32_t pos_x;            /* place on the front panel: column, row */
  int32_t pos_y;
  int32_t aux_index; /* only the sign has a meaning to readers */
  int32_t mirror;    /* non-zero: a mirror port */
  int32_t limit;     /* the port's limit value */
  int32_t link;      /* non-zero: link up */
  uint64_t flags;    /* UIF_FLAG_... */
};

/* All interfaces (struct uif), in the platform's order. Never NULL after uif_init. */
extern struct list* g_uif_list;

/* Number of physical switch ports; set by uif_init. */
extern int g_port_max;

/*
 * True when the record is a physical switch port. Agent code and platform share the one rule:
 * the top byte of the index is not zero.
 */
static inline int uif_index_is_port(uint32_t index) {
  return (index >> 24) != 0;
}

/* Fills the interface cache. Called once, before any look-up. */
void uif_init(void);

/* Fills the VLAN cache. Called once, after uif_init. */
void uvlan_init(void);

/* The record of that name, or NULL when unknown or `name` is NULL. Both do the same. */
struct uif* uif_get_by_name(const char* name);
struct uif* uif_lookup_by_name(const char* name);

/* The record with that interface index, or NULL. */
struct uif* uif_lookup_by_index(uint32_t index);

/* The physical port with that zero-based port index (port_no - 1), or NULL. */
struct uif* uif_lookup_by_port_index(int port_index);

/* 1 when the port is administratively enabled, else 0. `uif` is not NULL. */
int uif_is_enable(const struct uif* uif);

/* 1 when the port's link is up, else 0. `uif` is not NULL. */
int uif_is_linkup(const struct uif* uif);

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_UIF_H */
