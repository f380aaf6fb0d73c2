/* SPDX-License-Identifier: Apache-2.0 */
/* The command shell of the stand-in SDK: takes commands down, and offers none of them to anybody.
 */
#include "platform/vty.h"

#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include "platform/log.h"

struct vty {
  FILE* out;
};

static int install_nothing(const struct cmd_element* element, struct vty* vty, int argc,
                           const char* argv[]) {
  (void)element;
  (void)vty;
  (void)argc;
  (void)argv;
  return 0;
}

const struct cmd_element morva_interface_cmd = {"interface NAME", install_nothing,
                                                "An interface\nIts name\n"};
const struct cmd_element no_morva_interface_cmd = {"no interface NAME", install_nothing,
                                                   "Take back\nAn interface\nIts name\n"};

void cmd_init(int terminal) {
  fprintf(stderr, "sdk: cmd_init %d\n", terminal);
}

void vty_init(struct thread_master* master) {
  (void)master;
}

void memory_init(void) {}

void install_node(const struct cmd_node* node, int (*config_write)(struct vty* vty)) {
  (void)config_write;
  fprintf(stderr, "sdk: install_node %d\n", node->node);
}

void install_element(int node, const struct cmd_element* element) {
  fprintf(stderr, "sdk: install_element %d %s\n", node, element->string);
}

void install_default(int node) {
  (void)node;
}

void vty_serv_sock(const char* address, unsigned short port, const char* path) {
  (void)address;
  fprintf(stderr, "sdk: vty_serv_sock %u %s\n", port, path);
}

int vty_out(struct vty* vty, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = vfprintf(vty->out, format, arguments);
  va_end(arguments);
  return written;
}

const char* vty_newline(const struct vty* vty) {
  (void)vty;
  return "\n";
}

void host_init(unsigned protocols, int flags) {
  fprintf(stderr, "sdk: host_init 0x%x %d\n", protocols, flags);
}

int pid_output(const char* path) {
  FILE* file = fopen(path, "w");
  if (file == NULL) {
    zlog_err("%s cannot be written", path);
    return -1;
  }
  fprintf(file, "%d\n", (int)getpid());
  fclose(file);
  return (int)getpid();
}
