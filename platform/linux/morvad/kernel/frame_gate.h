// SPDX-License-Identifier: Apache-2.0
//
// Whether frames of the gateway reach the agent. Shut: an nftables rule at the ingress of the
// management interface drops them; the bridge goes on forwarding them between its ports. Open: no
// rule, and the interface listens to the group address.
#ifndef MORVA_LINUX_MORVAD_KERNEL_FRAME_GATE_H
#define MORVA_LINUX_MORVAD_KERNEL_FRAME_GATE_H

#include <string>

#include "platform/linux/fd.h"

namespace morvad {

class FrameGate {
 public:
  explicit FrameGate(std::string interface) : interface_(std::move(interface)) {}

  /// Whether the kernel drops the frames now, by a rule of a morvad before this one.
  bool found_shut();

  /// Opens or shuts. "" when done, else why not; it then is as it was.
  std::string set(bool open);

  /// The interface was made anew, with this index: rule and membership went with the old one.
  /// Returns as set() does.
  std::string interface_made(int index);

  /// The interface is gone.
  void interface_gone();

 private:
  std::string join();

  std::string interface_;
  int index_ = 0;  // 0: there is no such interface
  bool open_ = true;
  UniqueFd member_;  // the socket that holds the membership
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_FRAME_GATE_H
