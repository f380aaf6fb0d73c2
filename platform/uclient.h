/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The client of the morva platform's interface manager: it hears of new interfaces, of interface
 * status, of trunks, and answers for mirrors. Messages arrive on two kinds of connection: the one
 * that the client makes, and those that the manager makes back to the client's listening socket.
 */
#ifndef MORVA_PLATFORM_UCLIENT_H
#define MORVA_PLATFORM_UCLIENT_H

#include <stdint.h>

#include "platform/uif.h"

#ifdef __cplusplus
extern "C" {
#endif

struct uclient;

/* One message of the manager, already taken apart; opaque to daemons, valid during a callback. */
struct uclient_msg;

/* `conn_fd` and `listen_fd` are for the daemon's read registrations; the callbacks are its hooks.
 */
struct uclient {
  int conn_fd;   /* the connection to the manager; -1 when there is none */
  int listen_fd; /* the manager connects back here */
  int (*new_if)(struct uclient* client, const struct uclient_msg* msg);
  int (*if_status)(struct uclient* client, const struct uclient_msg* msg);
  int (*trunk_set)(struct uclient* client, const struct uclient_msg* msg);
  int (*mirror_get)(struct uclient* client, const struct uclient_msg* msg);
};

/*
 * Connects to the manager at `address` (IPv4, host byte order), TCP `port`, and listens on
 * `listen_port` of the same address. Returns the client (never freed), or NULL on failure.
 */
struct uclient* uclient_connect(uint32_t address, unsigned short port, unsigned short listen_port);

/*
 * Reads what is there on `fd` (a connection of this client) and calls the hook of each complete
 * message. Does not block. Returns 0 or more, or a negative value when the connection is to be
 * closed by the caller (end of stream, error, or a message that cannot be one).
 */
int uclient_handle_async(struct uclient* client, int fd);

/* Applies a new-interface message to the interface cache. Returns 0, or -1 when it is no good. */
int uclient_new_if(struct uclient* client, const struct uclient_msg* msg);

/*
 * Applies an interface-status message to the interface cache. Returns the record concerned, or
 * NULL when the message names no known interface.
 */
struct uif* uclient_if_status(struct uclient* client, const struct uclient_msg* msg);

/* Applies a trunk message. Returns 0, or -1 when it is no good. */
int uclient_trunk_set(struct uclient* client, const struct uclient_msg* msg);

/* Applies a mirror message to the interface cache. Returns 0, or -1 when it is no good. */
int uclient_mirror_get(struct uclient* client, const struct uclient_msg* msg);

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_UCLIENT_H */
