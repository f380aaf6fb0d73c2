// SPDX-License-Identifier: Apache-2.0
//
// The firmware service of platform/firmware.h; morvad keeps its state and plays the upgrade.
#include "platform/firmware.h"

#include <stdint.h>

#include "platform/linux/json.h"
#include "platform/linux/morva_call.h"

int sys_is_upgrading(void) {
  const JsonTree answer(morva_ask("sys", "fw_upgrading", nullptr));
  int64_t upgrading = 0;
  json_int(json_member(answer.get(), "data"), "upgrading", 0, 1, &upgrading);
  return static_cast<int>(upgrading);
}

int sys_transmit_fw_begin(void) {
  return morva_tell("sys", "fw_begin", nullptr);
}

int sys_transmit_fw_fail(int code) {
  cJSON* data = cJSON_CreateObject();
  cJSON_AddNumberToObject(data, "code", code);
  return morva_tell("sys", "fw_fail", data);
}

int sys_upgrade_firmware(const char* path) {
  cJSON* data = cJSON_CreateObject();
  cJSON_AddStringToObject(data, "path", path);
  return morva_tell("sys", "fw_upgrade", data);
}

int sys_upgrade_state_get(int* state, int* detail) {
  const JsonTree answer(morva_ask("sys", "fw_state_get", nullptr));
  const cJSON* data = json_member(answer.get(), "data");
  int64_t state_value = 0;
  int64_t detail_value = 0;
  const bool good = json_int(data, "state", INT32_MIN, INT32_MAX, &state_value) &&
                    json_int(data, "detail", INT32_MIN, INT32_MAX, &detail_value);
  if (state != nullptr) {
    *state = good ? static_cast<int>(state_value) : 0;
  }
  if (detail != nullptr) {
    *detail = good ? static_cast<int>(detail_value) : 0;
  }
  return good ? 0 : -1;
}

int sys_upgrade_state_set(int state, int detail) {
  cJSON* data = cJSON_CreateObject();
  cJSON_AddNumberToObject(data, "state", state);
  cJSON_AddNumberToObject(data, "detail", detail);
  return morva_tell("sys", "fw_state_set", data);
}
