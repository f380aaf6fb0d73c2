// SPDX-License-Identifier: Apache-2.0
//
// Whether frames of the gateway reach the agent, on every board. Shut: an nftables rule at the
// ingress of the management interface drops them; a bridge goes on forwarding them between its
// ports. Open: no rule, and the interface listens to the group address.
#ifndef MORVA_LINUX_MORVAD_KERNEL_FRAME_GATE_H
#define MORVA_LINUX_MORVAD_KERNEL_FRAME_GATE_H

#include <functional>
#include <string>

#include "platform/linux/fd.h"

namespace morvad {

/// Runs nftables commands as one transaction. "" when done, else the first line of what it said.
std::string run_nft(const std::string& commands);

class FrameGate {
 public:
  /// How commands get to nftables: run_nft, or what a test puts in its place.
  using Nft = std::function<std::string(const std::string& commands)>;

  FrameGate(std::string interface, Nft nft)
      : interface_(std::move(interface)), nft_(std::move(nft)) {}

  /// Whether the kernel drops the frames now, by a rule of a morvad before this one.
  bool found_shut();

  /// Opens or shuts. "" when done, else why not; it then is as it was.
  std::string set(bool open);

  /// Whether the frames get in now, or will when the interface is there.
  bool open() const { return open_; }

  /// The interface was made anew, with this index: rule and membership went with the old one.
  /// Returns as set() does; what could not be shut again is open.
  std::string interface_made(int index);

  /// The interface is gone.
  void interface_gone();

 private:
  bool rule_is_there() const;
  std::string join();

  std::string interface_;
  Nft nft_;
  int index_ = 0;  // 0: there is no such interface
  bool open_ = true;
  UniqueFd member_;  // the socket that holds the membership
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_FRAME_GATE_H
