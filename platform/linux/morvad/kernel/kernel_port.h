// SPDX-License-Identifier: Apache-2.0
//
// The binding of a port with an interface behind it. Its state is what KernelSwitch last heard of
// the kernel; its figures are read when they are asked for.
#ifndef MORVA_LINUX_MORVAD_KERNEL_KERNEL_PORT_H
#define MORVA_LINUX_MORVAD_KERNEL_KERNEL_PORT_H

#include <string>

#include "platform/linux/morvad/kernel/ethtool.h"
#include "platform/linux/morvad/kernel/netlink.h"
#include "platform/linux/morvad/port.h"

namespace morvad {

class KernelPort : public PortBinding {
 public:
  /// The two are not owned and outlive the port.
  KernelPort(const std::string& interface, Netlink& netlink, PauseFrames& pause)
      : interface_(interface), netlink_(&netlink), pause_(&pause) {}

  /// While there is no interface a configuration is good: it counts from when there is one.
  std::string set_enabled(bool enabled) override;
  std::string set_speed(int code) override;
  bool read_counters(Counters& out) override;
  bool read_status(PortStatus& out) const override;
  bool driven() const override { return true; }

  /// Takes what the kernel tells of the interface.
  void take(const LinkState& link);

  /// There is no interface any more.
  void leave();

  /// Takes the counters as the end of an interval; rates are those of the last whole one. A second
  /// sample at the same time changes nothing.
  void sample(const LinkState& link, uint64_t now_ns);

  const std::string& interface() const { return interface_; }
  int index() const { return link_.index; }  // 0: there is no such interface
  int master() const { return link_.master; }

 private:
  std::string interface_;
  Netlink* netlink_;
  PauseFrames* pause_;
  LinkState link_;
  EthtoolLink physical_;
  uint64_t sampled_ns_ = 0;  // 0: never
  Counters sampled_;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_KERNEL_PORT_H
