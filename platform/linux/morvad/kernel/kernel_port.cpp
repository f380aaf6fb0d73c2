// SPDX-License-Identifier: Apache-2.0
//
// See kernel_port.h.
#include "platform/linux/morvad/kernel/kernel_port.h"

namespace morvad {
namespace {

constexpr uint64_t kSecondNs = 1000000000;

/// Bytes per second; 0 where the counter began anew in between. `elapsed_ns` is not 0.
uint64_t rate(uint64_t before, uint64_t now, uint64_t elapsed_ns) {
  __extension__ typedef unsigned __int128 Wide;
  return now < before
             ? 0
             : static_cast<uint64_t>(static_cast<Wide>(now - before) * kSecondNs / elapsed_ns);
}

}  // namespace

std::string KernelPort::set_enabled(bool enabled) {
  if (link_.index == 0) {
    return {};
  }
  std::string refusal = netlink_->set_up(link_.index, enabled);
  LinkState now;
  // What became of it is read at once, so that the answer to the command is followed by the truth.
  if (netlink_->get_link(link_.index, now).empty()) {
    take(now);
  }
  return refusal;
}

std::string KernelPort::set_speed(int code) {
  if (link_.index == 0) {
    return {};
  }
  std::string refusal = ethtool_set_speed(interface_, code);
  LinkState now;
  if (netlink_->get_link(link_.index, now).empty()) {
    take(now);
  }
  return refusal;
}

bool KernelPort::read_counters(Counters& out) {
  LinkState now;
  out = {};
  if (link_.index == 0 || !netlink_->get_link(link_.index, now).empty()) {
    return true;
  }
  out.tx_bytes = now.tx_bytes;
  out.rx_bytes = now.rx_bytes;
  out.fcs_errors = now.fcs_errors;
  out.pause_frames = pause_->received(link_.index);
  out.tx_rate = sampled_.tx_rate;
  out.rx_rate = sampled_.rx_rate;
  return true;
}

bool KernelPort::read_status(PortStatus& out) const {
  if (link_.index == 0) {
    out.link = 0;  // and enabled as configured
    return true;
  }
  out.enable = link_.up ? 1 : 0;
  out.link = link_.carrier ? 1 : 0;
  out.speed = link_.carrier ? physical_.speed : 0;
  out.duplex = link_.carrier && physical_.full ? 1 : 0;
  return true;
}

void KernelPort::take(const LinkState& link) {
  link_ = link;
  if (!link.carrier || !ethtool_read(interface_, physical_).empty()) {
    physical_ = {};
  }
}

void KernelPort::leave() {
  link_ = {};
  physical_ = {};
  sampled_ = {};
  sampled_ns_ = 0;
}

void KernelPort::sample(const LinkState& link, uint64_t now_ns) {
  if (sampled_ns_ != 0) {
    if (now_ns <= sampled_ns_) {
      return;
    }
    const uint64_t elapsed = now_ns - sampled_ns_;
    sampled_.tx_rate = rate(sampled_.tx_bytes, link.tx_bytes, elapsed);
    sampled_.rx_rate = rate(sampled_.rx_bytes, link.rx_bytes, elapsed);
  }
  sampled_.tx_bytes = link.tx_bytes;
  sampled_.rx_bytes = link.rx_bytes;
  sampled_ns_ = now_ns;
}

}  // namespace morvad
