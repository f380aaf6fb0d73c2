// SPDX-License-Identifier: Apache-2.0
//
// What morvad needs of rtnetlink, on libnl: one socket for requests, one on which the kernel tells
// of changes. Nothing of libnl shows here. Used by KernelSwitch (kernel_switch.h) and, for the
// management address, by HostLinux.
#ifndef MORVA_LINUX_MORVAD_KERNEL_NETLINK_H
#define MORVA_LINUX_MORVAD_KERNEL_NETLINK_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/linux/morvad/host.h"

struct nl_sock;

namespace morvad {

using Mac = std::array<uint8_t, 6>;

/// An interface as the kernel has it.
struct LinkState {
  int index = 0;
  std::string name;
  bool up = false;       // administratively
  bool carrier = false;  // and ready to carry frames
  int master = 0;        // index of the bridge that it belongs to, 0 when to none
  uint64_t tx_bytes = 0;
  uint64_t rx_bytes = 0;
  uint64_t fcs_errors = 0;
};

/// An entry of a bridge's forwarding table.
struct FdbEntry {
  Mac mac{};
  uint16_t vid = 0;  // 0: the bridge does not tell VLANs apart
  int index = 0;     // the port's interface
  int master = 0;    // the bridge
  bool learnt = false;
  bool own = false;  // an address of the machine itself
};

/// An entry of the IPv4 neighbour table.
struct ArpEntry {
  std::string ip;
  Mac mac{};
  int index = 0;       // the interface on which the neighbour is
  bool known = false;  // `mac` is one that the neighbour answered with or asked from
};

/// State of a bridge port that lets nothing pass because of spanning tree.
inline constexpr int kBridgeBlocking = 4;

/// Takes what the kernel tells, by a dump or by an event.
class NetlinkReader {
 public:
  virtual ~NetlinkReader() = default;
  /// A dump begins, for the first time or once more: what it told before counts for nothing.
  virtual void start_over() {}
  virtual void link(const LinkState& link) = 0;
  virtual void link_gone(int index) = 0;
  /// State of a bridge's port; negative: it left its bridge.
  virtual void bridge_port(int index, int state) = 0;
  virtual void fdb(const FdbEntry& entry, bool gone) = 0;
  virtual void arp(const ArpEntry& entry, bool gone) = 0;
};

/// One request socket. Calls return "" when done, else why not in the kernel's words.
class Netlink {
 public:
  Netlink();

  std::string dump_links(NetlinkReader& reader);
  std::string dump_bridge_ports(NetlinkReader& reader);
  std::string dump_fdb(NetlinkReader& reader);
  std::string dump_arp(NetlinkReader& reader);

  /// One interface, by its index.
  std::string get_link(int index, LinkState& out);

  /// Administrative state of an interface.
  std::string set_up(int index, bool up);

  /// Makes `address` the first IPv4 address of an interface, in the place of the one that was.
  /// Returns 0, or a negative errno; the old address is then back.
  int address_set(const std::string& interface, const Address& address);

 private:
  struct Closer {
    void operator()(nl_sock* socket) const;
  };
  std::string dump(int type, int family, NetlinkReader& reader);

  std::unique_ptr<nl_sock, Closer> socket_;
  std::string unusable_;  // why there is no socket
};

/// The kernel's news: interfaces, bridge ports, forwarding entries, neighbours.
class NetlinkEvents {
 public:
  NetlinkEvents();

  /// "" when the kernel talks to us, else why not.
  const std::string& unusable() const { return unusable_; }

  int fd() const;

  /// Hands everything that waits to `reader`. False when something was lost on the way: the whole
  /// state has to be read anew.
  bool read(NetlinkReader& reader);

 private:
  struct Closer {
    void operator()(nl_sock* socket) const;
  };
  std::unique_ptr<nl_sock, Closer> socket_;
  std::string unusable_;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_NETLINK_H
