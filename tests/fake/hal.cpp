// SPDX-License-Identifier: Apache-2.0
//
// The hardware layer: the layer-2 table is what the test put into it.
#include "platform/hal.h"

#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

namespace {

struct State {
  std::optional<int> enabled;
  std::vector<hal_mac_entry> entries;
  std::function<std::optional<uint32_t>(uint32_t)> on_read;
};

State& state() {
  static State* const instance = new State;
  return *instance;
}

}  // namespace

extern "C" {

int hal_init(int client) {
  fake::internal::record("hal_init(%d)", client);
  return fake::internal::platform_fails("hal_init") ? -1 : 0;
}

int hal_qel_enable(int enable) {
  fake::internal::record("hal_qel_enable(%d)", enable);
  if (fake::internal::platform_fails("hal_qel_enable")) {
    return -1;
  }
  state().enabled = enable;
  return 0;
}

int hal_mac_get(struct hal_mac_entry* entries, uint32_t start, uint32_t batch, uint32_t select,
                uint32_t* count, uint32_t reserved1, uint32_t reserved2, uint32_t reserved3) {
  fake::internal::record("hal_mac_get(%u, %u, %u, %u, %u, %u)", start, batch, select, reserved1,
                         reserved2, reserved3);
  const auto told = state().on_read ? state().on_read(start) : std::nullopt;
  if (fake::internal::platform_fails("hal_mac_get")) {
    return -1;
  }
  uint32_t written = 0;
  for (size_t i = start; i < state().entries.size() && written < batch; ++i) {
    entries[written++] = state().entries[i];
  }
  *count = told.value_or(written);
  return 0;
}

}  // extern "C"

namespace fake {

std::optional<int> hal_enabled() {
  return state().enabled;
}
void add_mac_entry(const hal_mac_entry& entry) {
  state().entries.push_back(entry);
}
void clear_mac_entries() {
  state().entries.clear();
}
void on_mac_read(std::function<std::optional<uint32_t>(uint32_t)> action) {
  state().on_read = std::move(action);
}

void internal::reset_hal() {
  state() = State{};
}

}  // namespace fake
