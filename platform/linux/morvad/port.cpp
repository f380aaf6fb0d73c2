// SPDX-License-Identifier: Apache-2.0
//
// See port.h.
#include "platform/linux/morvad/port.h"

#include <algorithm>
#include <string_view>

namespace morvad {
namespace {

struct SpeedCode {
  std::string_view name;
  int mbits;
  int duplex;
};

constexpr SpeedCode kSpeeds[] = {
    {"AN", 0, -1},     {"10M", 10, -1},    {"10M-H", 10, 0},    {"10M-F", 10, 1},
    {"100M", 100, -1}, {"100M-H", 100, 0}, {"100M-F", 100, 1},  {"1G", 1000, 1},
    {"1G-F", 1000, 1}, {"2.5G", 2500, 1},  {"5G", 5000, 1},     {"10G", 10000, 1},
    {"25G", 25000, 1}, {"40G", 40000, 1},  {"100G", 100000, 1},
};
static_assert(std::size(kSpeeds) == kSpeedCodes);

constexpr uint64_t kSecondNs = 1000000000;

__extension__ typedef unsigned __int128 Wide;

// base + rate * elapsed / second, rounded down. Whole seconds apart, so that at every real rate the
// division is one of 64 bits: this is done twice for each port and poll.
uint64_t grown(uint64_t base, uint64_t rate, uint64_t elapsed_ns) {
  constexpr uint64_t kProductFits = UINT64_MAX / kSecondNs;
  const uint64_t rest = elapsed_ns % kSecondNs;
  const uint64_t part = rate <= kProductFits
                            ? rate * rest / kSecondNs
                            : static_cast<uint64_t>(static_cast<Wide>(rate) * rest / kSecondNs);
  return base + rate * (elapsed_ns / kSecondNs) + part;
}

}  // namespace

int speed_of_code(int code) {
  return kSpeeds[code].mbits;
}

int duplex_of_code(int code) {
  return kSpeeds[code].duplex;
}

const char* speed_code_name(int code) {
  return kSpeeds[code].name.data();
}

int speed_code_of_name(std::string_view name) {
  const auto* found = std::find_if(std::begin(kSpeeds), std::end(kSpeeds),
                                   [name](const SpeedCode& row) { return row.name == name; });
  return found == std::end(kSpeeds) ? -1 : static_cast<int>(found - std::begin(kSpeeds));
}

PortStatus Port::status() const {
  PortStatus out;
  out.enable = enabled ? 1 : 0;
  out.speed_conf = speed_conf;
  if (binding->read_status(out)) {
    return out;
  }
  out.link = enabled && cable ? 1 : 0;
  if (out.link != 0) {
    const int forced = speed_of_code(speed_conf);
    const int duplex = duplex_of_code(speed_conf);
    out.speed = std::min(forced != 0 ? forced : far_speed, built.max_speed);
    out.duplex = duplex >= 0 ? duplex : far_full ? 1 : 0;
  }
  return out;
}

Counters Port::counters(uint64_t now_ns) const {
  Counters out = base;
  if (binding->read_counters(out) || frozen) {
    return out;
  }
  if (!enabled || !cable) {
    out.tx_rate = 0;
    out.rx_rate = 0;
    return out;
  }
  const uint64_t elapsed = now_ns > since_ns ? now_ns - since_ns : 0;
  out.tx_bytes = grown(base.tx_bytes, base.tx_rate, elapsed);
  out.rx_bytes = grown(base.rx_bytes, base.rx_rate, elapsed);
  return out;
}

void Port::settle(uint64_t now_ns) {
  const Counters now = counters(now_ns);
  base.tx_bytes = now.tx_bytes;
  base.rx_bytes = now.rx_bytes;
  since_ns = now_ns;
}

int Port::poe_drawn() const {
  return built.poe && poe_enabled && !poe_cut ? std::min(poe_power, built.poe_limit) : 0;
}

}  // namespace morvad
