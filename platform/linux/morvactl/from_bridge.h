// SPDX-License-Identifier: Apache-2.0
//
// A board file out of a running machine: `morvactl board --from-bridge vlanif1`.
#ifndef MORVA_LINUX_MORVACTL_FROM_BRIDGE_H
#define MORVA_LINUX_MORVACTL_FROM_BRIDGE_H

#include <string>

namespace morvactl {

/// The text of a board file with a port for each interface that belongs to the bridge `bridge`,
/// numbered in the order of their names. Throws Failure when there is no such bridge, or none of
/// its ports can be one of a board.
std::string board_from_bridge(const std::string& bridge);

}  // namespace morvactl

#endif  // MORVA_LINUX_MORVACTL_FROM_BRIDGE_H
