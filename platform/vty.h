/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The command shell (vty) of the morva platform: sessions on a TCP port and a Unix socket, commands
 * grouped in numbered nodes, and the configuration that the nodes' writers print.
 */
#ifndef MORVA_PLATFORM_VTY_H
#define MORVA_PLATFORM_VTY_H

#include "platform/loop.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The platform's own node numbers; a daemon adds others with install_node. */
enum {
  VTY_NODE_VIEW = 1,   /* after login */
  VTY_NODE_ENABLE = 4, /* after `enable` */
  VTY_NODE_CONFIG = 5, /* after `configure terminal` */
};

struct vty; /* one session, or one configuration being written; opaque */
struct cmd_element;

/*
 * A command's action. `argv` holds the words that filled the variable places of `string`
 * (alternatives, numbers, names) in order, `argc` their count; valid during the call only.
 * Returns 0 for success, anything else for failure.
 */
typedef int (*cmd_func)(const struct cmd_element* element, struct vty* vty, int argc,
                        const char* argv[]);

/*
 * A command. `string` is its syntax: literal words, "(a|b)" alternatives, "<0-255>" numbers,
 * upper-case NAMES for free words. `doc` holds one help line for each word, and for each
 * alternative, in order, each ended by a line feed. All texts must live as long as the process.
 */
struct cmd_element {
  const char* string;
  cmd_func func;
  const char* doc;
};

/* A node. `prompt` may be empty: the shell then makes its own. `vtysh` 1: offered to the shell. */
struct cmd_node {
  int node;
  const char* prompt;
  int vtysh;
};

/* The platform's own commands around `interface NAME`; they move a session to node 69. */
extern const struct cmd_element morva_interface_cmd;
extern const struct cmd_element no_morva_interface_cmd;

/* Prepares the command table; `terminal` 1: with the commands of an interactive shell. */
void cmd_init(int terminal);

/* Prepares the sessions; they will run on `master`. */
void vty_init(struct thread_master* master);

/* Prepares the platform's accounting of memory. */
void memory_init(void);

/*
 * Adds a node. `node` is kept by reference and must live as long as the process. `config_write`
 * prints the node's part of the configuration with vty_out and returns its line count; NULL: none.
 */
void install_node(const struct cmd_node* node, int (*config_write)(struct vty* vty));

/* Adds a command to a node; kept by reference, must live as long as the process. */
void install_element(int node, const struct cmd_element* element);

/* Adds the commands that every node has (exit, end, help, list ...) to `node`. */
void install_default(int node);

/*
 * Starts listening: TCP `port` on `address` (NULL: the loopback address) and the Unix stream socket
 * `path`. A listener that cannot be opened is logged and left out.
 */
void vty_serv_sock(const char* address, unsigned short port, const char* path);

/* Writes to the session or configuration, printf style. Returns the number of bytes, -1 on error.
 */
int vty_out(struct vty* vty, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* The line end of this session: "\r\n" for a terminal connection, "\n" otherwise. */
const char* vty_newline(const struct vty* vty);

/*
 * Has the saved configuration of the daemon applied, command by command, by thread_main before it
 * runs any callback: what the operator saved has the last word over the defaults of start-up, and
 * nothing that waits at a socket is read before it.
 * `protocols` is a bit set of the platform's daemons, `flags` is 0.
 */
void host_init(unsigned protocols, int flags);

/* Writes the process id into the file at `path`. Returns the process id, or -1 (logged). */
int pid_output(const char* path);

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_VTY_H */
