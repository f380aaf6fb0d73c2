// SPDX-License-Identifier: Apache-2.0
//
// One port of the switch: what was built (BoardPort), what was configured, what the cable does, and
// what follows from the three.
//
//     configured (enabled, speed code) + cable (plugged, far end) + built (highest speed)
//         -> link, speed, duplex
//
// A port is the same whether it lives in memory or is driven by the kernel. What stands behind it
// is a PortBinding: the sink for what is configured and, where it has its own, the source of state
// and figures. News reach the model through Switch::set_cable, from morvactl for a port in memory,
// and through Switch::news for others.
#ifndef MORVA_LINUX_MORVAD_PORT_H
#define MORVA_LINUX_MORVAD_PORT_H

#include <cstdint>
#include <memory>
#include <string>

#include "platform/linux/morvad/board.h"

namespace morvad {

/// Configured speeds are codes: 0 is autonegotiation, the others a forced speed.
inline constexpr int kSpeedCodes = 15;

/// Speed in Mbit/s of a code (0 for autonegotiation), and whether it forces a duplex: 1 full,
/// 0 half, -1 as the far end has it. `code` is 0..14.
int speed_of_code(int code);
int duplex_of_code(int code);

/// The name of a code ("AN", "1G-F"), and the code of a name, -1 when it is none. Exact match.
const char* speed_code_name(int code);
int speed_code_of_name(std::string_view name);

/// 64-bit counters of a port.
struct Counters {
  uint64_t tx_bytes = 0;
  uint64_t rx_bytes = 0;
  uint64_t fcs_errors = 0;
  uint64_t pause_frames = 0;  // received
  uint64_t tx_rate = 0;       // bytes per second
  uint64_t rx_rate = 0;
};

/// What an interface status event tells.
struct PortStatus {
  int link = 0;
  int speed = 0;   // Mbit/s, 0 without link
  int duplex = 0;  // 1 full
  int enable = 0;
  int speed_conf = 0;

  bool operator==(const PortStatus&) const = default;
};

/// What stands behind a port.
class PortBinding {
 public:
  virtual ~PortBinding() = default;

  /// Bring about what was configured. Return "" when done, else why not, for the log.
  virtual std::string set_enabled(bool enabled) = 0;
  virtual std::string set_speed(int code) = 0;

  /// Fills in the port's own figures. False: it has none, the model computes them.
  virtual bool read_counters(Counters& out) = 0;

  /// Fills in link, speed, duplex and enable as they are behind the port. False: it has no state of
  /// its own, the model computes it.
  virtual bool read_status(PortStatus&) const { return false; }

  /// Whether something else than morvactl moves cable, figures and addresses of the port.
  virtual bool driven() const { return false; }
};

/// The binding of a port that lives in memory: every command succeeds, there are no own figures.
class MemoryBinding : public PortBinding {
 public:
  std::string set_enabled(bool) override { return {}; }
  std::string set_speed(int) override { return {}; }
  bool read_counters(Counters&) override { return false; }
};

struct Port {
  BoardPort built;
  std::unique_ptr<PortBinding> binding;
  uint32_t index = 0;  // interface index; the top byte is the unit, never 0

  bool enabled = true;
  int speed_conf = 0;

  bool cable = false;
  int far_speed = 0;
  bool far_full = true;

  int trunk = 0;   // 0: in none
  int mirror = 0;  // non-zero: a mirror port
  int limit = 0;   // the port's limit value
  bool loop_blocked = false;
  bool stp_blocked = false;

  bool poe_enabled = false;
  int poe_priority = 0;
  int poe_power = 0;     // milliwatts that the device draws when it is fed
  bool poe_cut = false;  // power is off for a moment, see poe_qel_port_reboot

  /// The counters of a port in memory: values as of `since_ns`, growing by the rates while the
  /// link is up and the port is not frozen.
  Counters base;
  uint64_t since_ns = 0;
  bool frozen = false;

  PortStatus status() const;

  /// The counters at `now_ns` (monotonic).
  Counters counters(uint64_t now_ns) const;

  /// Makes the counters at `now_ns` the new base; called before anything changes their growth.
  void settle(uint64_t now_ns);

  /// Milliwatts that the port feeds now.
  int poe_drawn() const;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_PORT_H
