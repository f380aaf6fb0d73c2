// SPDX-License-Identifier: Apache-2.0
//
// A reader that keeps what one dump tells, for those that want the whole of it. Used by
// KernelSwitch.
#ifndef MORVA_LINUX_MORVAD_KERNEL_COLLECTOR_H
#define MORVA_LINUX_MORVAD_KERNEL_COLLECTOR_H

#include <vector>

#include "platform/linux/morvad/kernel/netlink.h"

namespace morvad {

class Collector : public NetlinkReader {
 public:
  void start_over() override {
    links.clear();
    entries.clear();
  }
  void link(const LinkState& link) override { links.push_back(link); }
  void link_gone(int) override {}
  void bridge_port(int, int) override {}
  void fdb(const FdbEntry& entry, bool) override { entries.push_back(entry); }
  void arp(const ArpEntry&, bool) override {}

  std::vector<LinkState> links;
  std::vector<FdbEntry> entries;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_COLLECTOR_H
