/* SPDX-License-Identifier: Apache-2.0 */
/* The firmware service of the morva platform. */
#ifndef MORVA_PLATFORM_FIRMWARE_H
#define MORVA_PLATFORM_FIRMWARE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero while an upgrade runs. */
int sys_is_upgrading(void);

/* Announces that a firmware image is about to be transferred. Returns 0, or -1. */
int sys_transmit_fw_begin(void);

/* Reports that the transfer failed, with a negative code. Returns 0, or -1. */
int sys_transmit_fw_fail(int code);

/* Starts the upgrade from the image file at `path`; returns at once. 0, or -1 when refused. */
int sys_upgrade_firmware(const char* path);

/*
 * The upgrade state: 0 idle, 1 transfer, 2 fetching, 3 writing, negative: the last one failed.
 * `detail` is a figure that belongs to the state. Either pointer may be NULL. Return 0, or -1.
 */
int sys_upgrade_state_get(int* state, int* detail);
int sys_upgrade_state_set(int state, int detail);

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_FIRMWARE_H */
