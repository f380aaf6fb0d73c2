// SPDX-License-Identifier: Apache-2.0
//
// The physical side of an interface: speed, duplex and autonegotiation as its driver tells and
// takes them, and pause frames. Used by KernelSwitch and by `morvactl board`.
#ifndef MORVA_LINUX_MORVAD_KERNEL_ETHTOOL_H
#define MORVA_LINUX_MORVAD_KERNEL_ETHTOOL_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct nl_sock;

namespace morvad {

struct EthtoolLink {
  int speed = 0;      // Mbit/s, 0 when unknown or without link
  bool full = false;  // duplex
  int max_speed = 0;  // of the modes that the hardware supports, 0 when it does not tell
  bool fibre = false;
};

/// Hands one of the kernel's ethtool records to the driver of `interface`, which answers in its
/// place. 0, or the errno of a refusal. `record` begins with the command and has room for the
/// longest answer.
using EthtoolCall = std::function<int(const std::string& interface, void* record)>;

/// The kernel's own.
int ethtool_ioctl(const std::string& interface, void* record);

/// What the driver of `interface` tells. "" when done, else why not.
std::string ethtool_read(const std::string& interface, EthtoolLink& out,
                         const EthtoolCall& call = ethtool_ioctl);

/// Configures a speed by its code (port.h): 0 negotiates everything that is supported. A code that
/// leaves the duplex open, or a speed that exists only negotiated, is negotiated as the only
/// choice.
/// "" when done, else why not.
std::string ethtool_set_speed(const std::string& interface, int code,
                              const EthtoolCall& call = ethtool_ioctl);

/// Received pause frames, by ethtool's netlink family.
class PauseFrames {
 public:
  PauseFrames();

  /// The count of the interface `index`; 0 from a driver that does not count them.
  uint64_t received(int index);

 private:
  struct Closer {
    void operator()(nl_sock* socket) const;
  };
  std::unique_ptr<nl_sock, Closer> socket_;
  int family_ = -1;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_ETHTOOL_H
