// SPDX-License-Identifier: Apache-2.0
//
// What stands behind the switch as a whole, where not all of it lives in memory: the way of the
// gateway's frames to the agent, and the layer-2 table. The kernel's is kernel/kernel_switch.h.
#ifndef MORVA_LINUX_MORVAD_BACKING_H
#define MORVA_LINUX_MORVAD_BACKING_H

#include <string>
#include <vector>

#include "platform/linux/morvad/l2_table.h"

namespace morvad {

class Backing {
 public:
  virtual ~Backing() = default;

  /// Lets the gateway's frames through to the agent, or stops them. "" when done, else why not.
  virtual std::string let_frames(bool through) = 0;

  /// Reads the whole layer-2 table, at most kL2TableSize entries. "" when done, else why not.
  virtual std::string read_l2(std::vector<L2Entry>& out) = 0;

  /// The agent has just started and knows nothing yet of its neighbours.
  virtual void agent_started() = 0;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_BACKING_H
