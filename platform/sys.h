/* SPDX-License-Identifier: Apache-2.0 */
/* System services of the morva platform: identity, settings, restart, small helpers. */
#ifndef MORVA_PLATFORM_SYS_H
#define MORVA_PLATFORM_SYS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
  SYS_NAME_SIZE = 64,    /* bytes of the system name, closing NUL included */
  OEM_INFO_WORDS = 8,    /* words of the maker's record */
  NVRAM_KEY_SIZE = 64,   /* bytes of a key, closing NUL included */
  NVRAM_VALUE_SIZE = 256 /* bytes of a value, closing NUL included */
};

/* The maker's record. The meaning of its words is the platform's. */
struct oem_info {
  uint32_t word[OEM_INFO_WORDS];
};

/* The platform's information about the system. */
struct sys_info {
  char name[SYS_NAME_SIZE]; /* NUL-terminated */
};

/* Attaches the process to the platform's services. Returns 0, or -1. */
int morva_init(void);

/* Reads the maker's record; zeros when there is none. Returns 0, or -1. */
int oem_info_get(struct oem_info* info);

/*
 * Settings that survive a restart: text by key. nvram_safe_get returns "" for an unset key, never
 * NULL; its text is valid until the next nvram call. nvram_get_int reads a decimal number, 0 when
 * unset or not a number; nvram_get_int_default returns `fallback` instead.
 */
const char* nvram_safe_get(const char* key);
int nvram_get_int(const char* key);
int nvram_get_int_default(const char* key, int fallback);

/*
 * Stores a number. When the call returns 0 the value is in the persistent store; on -1 the store
 * is as it was (and the log says why). The _temp form keeps it until the next restart only.
 */
int nvram_set_int(const char* key, int value);
int nvram_set_int_temp(const char* key, int value);

/* Saves the running configuration of this daemon. Returns 0, or -1 (logged). */
int config_save(void);

/* The system MAC address of the switch: six bytes into `mac`. Returns 0, or -1 (then zeros). */
int sys_mac_get(uint8_t mac[6]);

/* Read and replace the system information. Return 0, or -1. */
int sys_info_get(struct sys_info* info);
int sys_info_set(const struct sys_info* info);

/* Restarts the switch; may return before it happens. Returns 0, or -1 when it will not. */
int sys_reboot(void);

/* Sets all settings back to those of the factory; they count from the next restart. 0, or -1. */
int sys_restore_default(void);

/*
 * Six bytes as "aa:bb:cc:dd:ee:ff" in lower case, in a static buffer that the next call reuses.
 * str2mac reads that form, with ':' or '-' or no separators, in either case, into `mac`; returns 0,
 * or -1 (then `mac` is zeroed) when the text is something else.
 */
const char* mac2str(const uint8_t mac[6]);
int str2mac(const char* text, uint8_t mac[6]);

/* CRC-32 (IEEE 802.3) of `length` bytes, continuing from `initial` (0 to begin). */
uint32_t crc32_sp(uint32_t initial, const void* data, size_t length);

/* Seconds since the system started. Never goes back; wraps after 2^32 seconds. */
uint32_t tq_uptime_get(void);

/* Appends `length` bytes to the file at `path`, which is created if needed. Returns 0, or -1. */
int tq_file_append(const char* path, const void* data, size_t length);

#ifdef __cplusplus
}
#endif

#endif /* MORVA_PLATFORM_SYS_H */
