// SPDX-License-Identifier: Apache-2.0
//
// The state of a firmware upgrade, as the firmware calls of the platform tell it.
//
// States: 0 idle, 1 an image is being transferred, 2 fetched from a server, 3 being written,
// negative: the last upgrade failed with that code. No state but idle stays for ever, or no upgrade
// from a server could be started again (it is only started from idle): a transfer or an upgrade
// that never reported its end, and a failure that was shown for a while, fall back to idle, with
// their figure as detail.
#ifndef MORVA_LINUX_MORVAD_FIRMWARE_H
#define MORVA_LINUX_MORVAD_FIRMWARE_H

#include <cstdint>

namespace morvad {

enum FirmwareState {
  kFirmwareIdle = 0,
  kFirmwareTransfer = 1,
  kFirmwareFetch = 2,
  kFirmwareWrite = 3
};

/// Detail of an idle state that an upgrade without an end left behind.
inline constexpr int kUpgradeAbandoned = -6;

class Firmware {
 public:
  static constexpr uint64_t kTransferPatienceNs = 600ULL * 1000000000;
  static constexpr uint64_t kUpgradePatienceNs = 1800ULL * 1000000000;
  static constexpr uint64_t kFailureShownNs = 60ULL * 1000000000;

  void set(int state, int detail, uint64_t now_ns);

  /// State and detail at `now_ns` (monotonic).
  int state(uint64_t now_ns);
  int detail(uint64_t now_ns);

  /// An upgrade is on its way and another may not begin. A transfer does not count: the gateway may
  /// begin it anew.
  bool upgrading(uint64_t now_ns);

 private:
  void age(uint64_t now_ns);

  int state_ = kFirmwareIdle;
  int detail_ = 0;
  uint64_t since_ns_ = 0;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_FIRMWARE_H
