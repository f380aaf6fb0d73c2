// SPDX-License-Identifier: Apache-2.0
//
// System services. A text of nvram_safe_get is freed by the next nvram call, as its contract
// allows.
#include "platform/sys.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

namespace {

struct State {
  std::map<std::string, std::string> persistent;
  std::map<std::string, std::string> temporary;
  std::vector<std::string> writes;
  std::unique_ptr<char[]> last_text;  // what nvram_safe_get handed out
  bool writes_fail = false;
  fake::Mac mac{0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
  std::array<uint32_t, OEM_INFO_WORDS> oem{};
  sys_info info{};
  int reboots = 0;
  int factory_resets = 0;
};

State& state() {
  static State* const instance = new State;
  return *instance;
}

// Temporary values hide persistent ones.
std::string value_of(const std::string& key) {
  const auto temporary = state().temporary.find(key);
  if (temporary != state().temporary.end()) {
    return temporary->second;
  }
  const auto persistent = state().persistent.find(key);
  return persistent == state().persistent.end() ? "" : persistent->second;
}

int write_number(std::map<std::string, std::string>& store, const char* prefix, const char* key,
                 int value) {
  state().last_text.reset();
  const std::string text = std::string(prefix) + key + "=" + std::to_string(value);
  if (state().writes_fail) {
    state().writes.push_back(text + " (failed)");
    return -1;
  }
  state().writes.push_back(text);
  store[key] = std::to_string(value);
  return 0;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// Six pairs of digits with `separator` between them, or without any when it is 0.
bool parse_mac(const char* text, char separator, uint8_t mac[6]) {
  for (int i = 0; i < 6; ++i) {
    if (i > 0 && separator != 0 && *text++ != separator) {
      return false;
    }
    const int high = hex_value(text[0]);
    const int low = high < 0 ? -1 : hex_value(text[1]);
    if (low < 0) {
      return false;
    }
    mac[i] = static_cast<uint8_t>(high * 16 + low);
    text += 2;
  }
  return *text == '\0';
}

}  // namespace

extern "C" {

int morva_init(void) {
  fake::internal::record("morva_init()");
  return fake::internal::platform_fails("morva_init") ? -1 : 0;
}

int oem_info_get(struct oem_info* info) {
  fake::internal::record("oem_info_get()");
  std::memset(info, 0, sizeof *info);
  if (fake::internal::platform_fails("oem_info_get")) {
    return -1;
  }
  for (size_t i = 0; i < state().oem.size(); ++i) {
    info->word[i] = state().oem[i];
  }
  return 0;
}

const char* nvram_safe_get(const char* key) {
  const std::string text = value_of(key);
  state().last_text = std::make_unique<char[]>(text.size() + 1);
  std::memcpy(state().last_text.get(), text.c_str(), text.size() + 1);
  return state().last_text.get();
}

int nvram_get_int(const char* key) {
  return nvram_get_int_default(key, 0);
}

int nvram_get_int_default(const char* key, int fallback) {
  state().last_text.reset();
  const std::string text = value_of(key);
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  return text.empty() || *end != '\0' ? fallback : static_cast<int>(value);
}

int nvram_set_int(const char* key, int value) {
  fake::internal::record("nvram_set_int(%s, %d)", key, value);
  return write_number(state().persistent, "", key, value);
}

int nvram_set_int_temp(const char* key, int value) {
  fake::internal::record("nvram_set_int_temp(%s, %d)", key, value);
  return write_number(state().temporary, "temp ", key, value);
}

int config_save(void) {
  fake::internal::record("config_save()");
  return fake::internal::platform_fails("config_save") ? -1 : 0;
}

int sys_mac_get(uint8_t mac[6]) {
  if (fake::internal::platform_fails("sys_mac_get")) {
    std::memset(mac, 0, 6);
    return -1;
  }
  std::memcpy(mac, state().mac.data(), 6);
  return 0;
}

int sys_info_get(struct sys_info* info) {
  fake::internal::record("sys_info_get()");
  *info = state().info;
  return fake::internal::platform_fails("sys_info_get") ? -1 : 0;
}

int sys_info_set(const struct sys_info* info) {
  fake::internal::record("sys_info_set(%.*s)", SYS_NAME_SIZE, info->name);
  if (fake::internal::platform_fails("sys_info_set")) {
    return -1;
  }
  state().info = *info;
  return 0;
}

int sys_reboot(void) {
  fake::internal::record("sys_reboot()");
  ++state().reboots;
  return fake::internal::platform_fails("sys_reboot") ? -1 : 0;
}

int sys_restore_default(void) {
  fake::internal::record("sys_restore_default()");
  ++state().factory_resets;
  return fake::internal::platform_fails("sys_restore_default") ? -1 : 0;
}

const char* mac2str(const uint8_t mac[6]) {
  static char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                mac[4], mac[5]);
  return text;
}

int str2mac(const char* text, uint8_t mac[6]) {
  for (char separator : {':', '-', '\0'}) {
    if (parse_mac(text, separator, mac)) {
      return 0;
    }
  }
  std::memset(mac, 0, 6);
  return -1;
}

uint32_t crc32_sp(uint32_t initial, const void* data, size_t length) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  uint32_t crc = ~initial;
  for (size_t i = 0; i < length; ++i) {
    crc ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1U) != 0 ? (crc >> 1) ^ 0xEDB88320U : crc >> 1;
    }
  }
  return ~crc;
}

uint32_t tq_uptime_get(void) {
  return fake::uptime();
}

int tq_file_append(const char* path, const void* data, size_t length) {
  fake::internal::record("tq_file_append(%s, %zu)", path, length);
  if (fake::internal::platform_fails("tq_file_append")) {
    return -1;
  }
  fake::internal::append_file(path, data, length);
  return 0;
}

}  // extern "C"

namespace fake {

void set_nvram(const std::string& key, const std::string& value) {
  state().persistent[key] = value;
}

std::string nvram(const std::string& key) {
  const auto found = state().persistent.find(key);
  return found == state().persistent.end() ? "" : found->second;
}

std::string nvram_temp(const std::string& key) {
  const auto found = state().temporary.find(key);
  return found == state().temporary.end() ? "" : found->second;
}

void fail_nvram_writes(bool fail) {
  state().writes_fail = fail;
}
const std::vector<std::string>& nvram_writes() {
  return state().writes;
}

void set_system_mac(const Mac& mac) {
  state().mac = mac;
}
void set_oem_words(const std::array<uint32_t, OEM_INFO_WORDS>& words) {
  state().oem = words;
}
std::string system_name() {
  return state().info.name;
}

void set_system_name(const std::string& name) {
  state().info = {};
  std::strncpy(state().info.name, name.c_str(), sizeof state().info.name - 1);
}

int reboots() {
  return state().reboots;
}
int factory_resets() {
  return state().factory_resets;
}

void internal::reset_sys() {
  state() = State{};
}
void internal::clear_sys_records() {
  state().writes.clear();
}

}  // namespace fake
