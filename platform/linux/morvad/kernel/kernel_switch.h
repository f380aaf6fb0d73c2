// SPDX-License-Identifier: Apache-2.0
//
// The switch that the kernel is: the board's ports with an interface behind them, and the bridge
// "vlanif1". What the kernel tells (events, and a full reading every few seconds for what events
// may have missed) moves the model; what is configured goes to the kernel through the ports'
// bindings.
//
//     Netlink, ethtool, lldpd --> KernelSwitch --> Switch (observer -> interface manager)
//     module commands --> Switch --> KernelPort --> Netlink, ethtool
//
// On a board whose ports all live in memory only the management interface is looked after: whether
// the gateway's frames get in by it, and its address when it is made anew.
//
// Ports are bound by the name of their interface: one that vanishes leaves its port without link,
// one that appears under the name, new or renamed, stands behind the port from then on.
#ifndef MORVA_LINUX_MORVAD_KERNEL_KERNEL_SWITCH_H
#define MORVA_LINUX_MORVAD_KERNEL_KERNEL_SWITCH_H

#include <event2/event.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/morvad/backing.h"
#include "platform/linux/morvad/host.h"
#include "platform/linux/morvad/kernel/announcer.h"
#include "platform/linux/morvad/kernel/ethtool.h"
#include "platform/linux/morvad/kernel/frame_gate.h"
#include "platform/linux/morvad/kernel/lldp.h"
#include "platform/linux/morvad/kernel/netlink.h"
#include "platform/linux/morvad/switch.h"

namespace morvad {

class KernelPort;

class KernelSwitch : public Backing, private NetlinkReader {
 public:
  static constexpr int kTickSeconds = 2;  // also the interval over which rates are taken
  static constexpr int kListTicks = 15;   // LLDP neighbours are told anew every so many ticks

  /// None is owned; all outlive this.
  KernelSwitch(event_base* base, Switch& sw, Host& host, FrameGate::Nft nft = run_nft);
  ~KernelSwitch() override;

  /// Binds the ports, reads the kernel's state and listens. "" when done, else why not; a board
  /// without a port in the kernel does without the kernel's news, and the log says so.
  std::string start();

  std::string let_frames(bool through) override;
  std::string read_l2(std::vector<L2Entry>& out) override;
  void agent_started() override;

 private:
  friend class KernelPort;
  struct PortPlace {
    Port* port;
    KernelPort* binding;  // owned by the port
  };

  void link(const LinkState& link) override;
  void link_gone(int index) override;
  void bridge_port(int index, int state) override;
  void fdb(const FdbEntry& entry, bool gone) override;
  void arp(const ArpEntry& entry, bool gone) override;

  void bridge_link(const LinkState& link);
  void found(PortPlace& place, const LinkState& link);
  void update(PortPlace& place, const LinkState& link);
  void lost(PortPlace& place, const std::string& how);
  void configure(PortPlace& place, const LinkState& link);
  void announce_address(const std::string& ip, const Mac& mac);
  void read_all();
  void read_events();
  void tick();

  PortPlace* place_of_index(int index);
  PortPlace* place_of_name(const std::string& interface);

  event_base* base_;
  Switch* switch_;
  Host* host_;
  Netlink netlink_;
  NetlinkEvents events_;
  PauseFrames pause_;
  FrameGate gate_;
  Announcer announcer_;
  Lldp lldp_;
  event* readable_ = nullptr;
  std::vector<PortPlace> places_;
  int bridge_ = 0;                               // index of "vlanif1", 0 while there is none
  std::map<std::pair<Mac, uint16_t>, int> fdb_;  // address and VLAN -> interface
  std::map<std::string, Mac> addresses_;         // IPv4 neighbours on the bridge
  int ticks_ = 0;
  bool reading_news_ = false;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_KERNEL_SWITCH_H
