// SPDX-License-Identifier: Apache-2.0
//
// See firmware.h.
#include "platform/linux/morvad/firmware.h"

namespace morvad {

void Firmware::set(int state, int detail, uint64_t now_ns) {
  state_ = state;
  detail_ = detail;
  since_ns_ = now_ns;
}

void Firmware::age(uint64_t now_ns) {
  const uint64_t elapsed = now_ns > since_ns_ ? now_ns - since_ns_ : 0;
  const uint64_t patience = state_ == kFirmwareTransfer ? kTransferPatienceNs : kUpgradePatienceNs;
  if (state_ > kFirmwareIdle && elapsed >= patience) {
    set(kFirmwareIdle, kUpgradeAbandoned, now_ns);
  } else if (state_ < 0 && elapsed >= kFailureShownNs) {
    set(kFirmwareIdle, state_, now_ns);
  }
}

int Firmware::state(uint64_t now_ns) {
  age(now_ns);
  return state_;
}

int Firmware::detail(uint64_t now_ns) {
  age(now_ns);
  return detail_;
}

bool Firmware::upgrading(uint64_t now_ns) {
  return state(now_ns) >= kFirmwareFetch;
}

}  // namespace morvad
