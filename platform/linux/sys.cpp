// SPDX-License-Identifier: Apache-2.0
//
// Identity and restart of the switch, of platform/sys.h: questions to morvad's module "sys".
#include "platform/sys.h"

#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "platform/linux/json.h"
#include "platform/linux/morva_call.h"
#include "platform/log.h"

namespace {

// The switch's MAC address does not change while it runs; every message asks for it.
uint8_t known_mac[6];
bool mac_is_known = false;

bool ask_mac() {
  const JsonTree answer(morva_ask("sys", "mac_get", nullptr));
  uint8_t mac[6];
  if (str2mac(json_text(json_member(answer.get(), "data"), "mac"), mac) != 0) {
    return false;
  }
  memcpy(known_mac, mac, sizeof known_mac);
  mac_is_known = true;
  return true;
}

}  // namespace

int morva_init(void) {
  // Writing beyond a limit on file sizes shall fail, not end the daemon.
  signal(SIGXFSZ, SIG_IGN);
  return mac_is_known || ask_mac() ? 0 : -1;
}

int oem_info_get(oem_info* info) {
  *info = {};
  const JsonTree answer(morva_ask("sys", "oem_get", nullptr));
  const cJSON* words = json_member(json_member(answer.get(), "data"), "words");
  if (!cJSON_IsArray(words) || cJSON_GetArraySize(words) != OEM_INFO_WORDS) {
    return -1;
  }
  oem_info record = {};
  int at = 0;
  for (const cJSON* word = words->child; word != nullptr; word = word->next) {
    int64_t value = 0;
    if (!json_int_value(word, 0, UINT32_MAX, &value)) {
      return -1;
    }
    record.word[at++] = static_cast<uint32_t>(value);
  }
  *info = record;
  return 0;
}

int sys_mac_get(uint8_t mac[6]) {
  const bool known = mac_is_known || ask_mac();
  memcpy(mac, known_mac, sizeof known_mac);  // zeros until it is known
  return known ? 0 : -1;
}

int sys_info_get(sys_info* info) {
  *info = {};
  const JsonTree answer(morva_ask("sys", "info_get", nullptr));
  const char* name = json_text(json_member(answer.get(), "data"), "name");
  if (name == nullptr || strlen(name) >= sizeof info->name) {
    return -1;
  }
  snprintf(info->name, sizeof info->name, "%s", name);
  return 0;
}

int sys_info_set(const sys_info* info) {
  if (strnlen(info->name, sizeof info->name) == sizeof info->name) {
    return -1;
  }
  cJSON* data = cJSON_CreateObject();
  cJSON_AddStringToObject(data, "name", info->name);
  return morva_tell("sys", "info_set", data);
}

int sys_reboot(void) {
  constexpr char kOrder[] = "{\"mdl\":\"sys\",\"cmd\":\"reboot\"}";
  constexpr int kMoment = 50;  // milliseconds
  if (morva_tell("sys", "reboot", nullptr) == 0) {
    return 0;
  }
  char reply[256];
  if (morva_call("sys", kOrder, reply, sizeof reply, kMoment) > 0) {
    const JsonTree answer(cJSON_Parse(reply));
    int64_t ret = -1;
    return json_int(answer.get(), "ret", INT32_MIN, INT32_MAX, &ret) && ret == 0 ? 0 : -1;
  }
  // A morvad that is late obeys when it goes on: what can be handed over is an order.
  return morva_call("sys", kOrder, nullptr, 0, 0) >= 0 ? 0 : -1;
}

int sys_restore_default(void) {
  return morva_tell("sys", "restore_default", nullptr);
}
