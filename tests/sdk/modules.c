/* SPDX-License-Identifier: Apache-2.0 */
/* The hardware layer, the firmware service and the other daemons of the stand-in SDK. */
#include <stdio.h>
#include <string.h>

#include "platform/firmware.h"
#include "platform/hal.h"
#include "platform/jclient.h"

static int upgrade_state;
static int upgrade_detail;

int hal_init(int client) {
  fprintf(stderr, "sdk: hal_init %d\n", client);
  return 0;
}

int hal_qel_enable(int enable) {
  fprintf(stderr, "sdk: hal_qel_enable %d\n", enable);
  return 0;
}

int hal_mac_get(struct hal_mac_entry* entries, uint32_t start, uint32_t batch, uint32_t select,
                uint32_t* count, uint32_t reserved1, uint32_t reserved2, uint32_t reserved3) {
  (void)entries;
  (void)start;
  (void)batch;
  (void)select;
  (void)reserved1;
  (void)reserved2;
  (void)reserved3;
  *count = 0;
  return 0;
}

int sys_is_upgrading(void) {
  return upgrade_state == 2 || upgrade_state == 3;
}

int sys_transmit_fw_begin(void) {
  upgrade_state = 1;
  return 0;
}

int sys_transmit_fw_fail(int code) {
  upgrade_state = code;
  return 0;
}

int sys_upgrade_firmware(const char* path) {
  fprintf(stderr, "sdk: sys_upgrade_firmware %s\n", path);
  upgrade_state = 3;
  return 0;
}

int sys_upgrade_state_get(int* state, int* detail) {
  if (state != NULL) {
    *state = upgrade_state;
  }
  if (detail != NULL) {
    *detail = upgrade_detail;
  }
  return 0;
}

int sys_upgrade_state_set(int state, int detail) {
  upgrade_state = state;
  upgrade_detail = detail;
  return 0;
}

/* No other daemon runs: nothing is answered. */
int jclient_query(const char* request, char* reply) {
  (void)reply;
  fprintf(stderr, "sdk: jclient_query %s\n", request);
  return -1;
}
