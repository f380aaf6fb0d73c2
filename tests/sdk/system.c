/* SPDX-License-Identifier: Apache-2.0 */
/* The system services of the stand-in SDK: settings in memory, a switch that never restarts. */
#include "platform/sys.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "platform/prefix.h"

static const uint8_t own_mac[6] = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x77};

struct setting {
  char key[NVRAM_KEY_SIZE];
  char value[NVRAM_VALUE_SIZE];
};

static struct setting settings[32] = {
    {"product_sn", "SDK0001"},
    {"product_hw_ver", "H1"},
    {"product_model", "standin"},
    {"firmware_ver", "9.9"},
    {"product_description", "big-endian"},
    {"have_poe", "0"},
};

int morva_init(void) {
  fprintf(stderr, "sdk: morva_init\n");
  return 0;
}

int oem_info_get(struct oem_info* info) {
  memset(info, 0, sizeof *info);
  return 0;
}

static struct setting* find(const char* key) {
  for (size_t i = 0; i < sizeof settings / sizeof settings[0]; ++i) {
    if (strcmp(settings[i].key, key) == 0) {
      return &settings[i];
    }
  }
  return NULL;
}

const char* nvram_safe_get(const char* key) {
  const struct setting* setting = find(key);
  return setting != NULL ? setting->value : "";
}

int nvram_get_int_default(const char* key, int fallback) {
  char* end = NULL;
  const char* text = nvram_safe_get(key);
  const long value = strtol(text, &end, 10);
  return end != text && *end == '\0' ? (int)value : fallback;
}

int nvram_get_int(const char* key) {
  return nvram_get_int_default(key, 0);
}

int nvram_set_int(const char* key, int value) {
  struct setting* setting = find(key);
  if (setting == NULL) {
    setting = find(""); /* a free place */
  }
  if (setting == NULL) {
    return -1;
  }
  snprintf(setting->key, sizeof setting->key, "%s", key);
  snprintf(setting->value, sizeof setting->value, "%d", value);
  return 0;
}

int nvram_set_int_temp(const char* key, int value) {
  fprintf(stderr, "sdk: nvram_set_int_temp %s %d\n", key, value);
  return nvram_set_int(key, value);
}

int config_save(void) {
  return 0;
}

int sys_mac_get(uint8_t mac[6]) {
  memcpy(mac, own_mac, sizeof own_mac);
  return 0;
}

int sys_info_get(struct sys_info* info) {
  snprintf(info->name, sizeof info->name, "%s", nvram_safe_get("product_description"));
  return 0;
}

int sys_info_set(const struct sys_info* info) {
  struct setting* setting = find("product_description");
  snprintf(setting->value, sizeof setting->value, "%s", info->name);
  return 0;
}

int sys_reboot(void) {
  fprintf(stderr, "sdk: sys_reboot\n");
  return 0;
}

int sys_restore_default(void) {
  fprintf(stderr, "sdk: sys_restore_default\n");
  return 0;
}

const char* mac2str(const uint8_t mac[6]) {
  static char text[18];
  snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
           mac[4], mac[5]);
  return text;
}

int str2mac(const char* text, uint8_t mac[6]) {
  unsigned part[6];
  char rest;
  memset(mac, 0, 6);
  if (text == NULL ||
      (sscanf(text, "%2x%*1[:-]%2x%*1[:-]%2x%*1[:-]%2x%*1[:-]%2x%*1[:-]%2x%c", &part[0], &part[1],
              &part[2], &part[3], &part[4], &part[5], &rest) != 6 &&
       sscanf(text, "%2x%2x%2x%2x%2x%2x%c", &part[0], &part[1], &part[2], &part[3], &part[4],
              &part[5], &rest) != 6)) {
    return -1;
  }
  for (int i = 0; i < 6; ++i) {
    mac[i] = (uint8_t)part[i];
  }
  return 0;
}

uint32_t crc32_sp(uint32_t initial, const void* data, size_t length) {
  const uint8_t* bytes = data;
  uint32_t crc = ~initial;
  for (size_t i = 0; i < length; ++i) {
    crc ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ (UINT32_C(0xedb88320) & (0 - (crc & 1)));
    }
  }
  return ~crc;
}

uint32_t tq_uptime_get(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint32_t)now.tv_sec;
}

int tq_file_append(const char* path, const void* data, size_t length) {
  FILE* file = fopen(path, "a");
  if (file == NULL) {
    return -1;
  }
  const size_t written = fwrite(data, 1, length, file);
  return fclose(file) == 0 && written == length ? 0 : -1;
}

int ip_masklen(struct in_addr netmask) {
  const uint32_t mask = ntohl(netmask.s_addr);
  int length = 0;
  while (length < 32 && (mask & (UINT32_C(0x80000000) >> length)) != 0) {
    ++length;
  }
  return length;
}
