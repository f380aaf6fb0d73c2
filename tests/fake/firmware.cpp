// SPDX-License-Identifier: Apache-2.0
//
// The firmware service: a record that the test reads and sets.
#include "platform/firmware.h"

#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

extern "C" {

int sys_is_upgrading(void) {
  fake::internal::record("sys_is_upgrading()");
  return fake::firmware().upgrading;
}

int sys_transmit_fw_begin(void) {
  fake::internal::record("sys_transmit_fw_begin()");
  ++fake::firmware().begins;
  return fake::internal::platform_fails("sys_transmit_fw_begin") ? -1 : 0;
}

int sys_transmit_fw_fail(int code) {
  fake::internal::record("sys_transmit_fw_fail(%d)", code);
  fake::firmware().fail_codes.push_back(code);
  return fake::internal::platform_fails("sys_transmit_fw_fail") ? -1 : 0;
}

int sys_upgrade_firmware(const char* path) {
  fake::internal::record("sys_upgrade_firmware(%s)", path);
  fake::firmware().upgrades.emplace_back(path);
  return fake::internal::platform_fails("sys_upgrade_firmware") ? -1 : 0;
}

int sys_upgrade_state_get(int* state, int* detail) {
  fake::internal::record("sys_upgrade_state_get()");
  if (fake::internal::platform_fails("sys_upgrade_state_get")) {
    return -1;
  }
  if (state != nullptr) {
    *state = fake::firmware().state;
  }
  if (detail != nullptr) {
    *detail = fake::firmware().detail;
  }
  return 0;
}

int sys_upgrade_state_set(int state, int detail) {
  fake::internal::record("sys_upgrade_state_set(%d, %d)", state, detail);
  if (fake::internal::platform_fails("sys_upgrade_state_set")) {
    return -1;
  }
  fake::firmware().state = state;
  fake::firmware().detail = detail;
  return 0;
}

}  // extern "C"

namespace fake {

Firmware& firmware() {
  static auto* const instance = new Firmware;
  return *instance;
}

void internal::reset_firmware() {
  firmware() = Firmware{};
}

}  // namespace fake
