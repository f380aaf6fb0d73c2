// SPDX-License-Identifier: Apache-2.0
//
// The management address, at start and whenever the management interface was made anew.
#ifndef MORVA_LINUX_MORVAD_MANAGEMENT_H
#define MORVA_LINUX_MORVAD_MANAGEMENT_H

#include "platform/linux/morvad/host.h"
#include "platform/linux/morvad/switch.h"

namespace morvad {

/// The configured address, or else the board's, goes to the management interface if there is one.
/// What the kernel refuses is logged.
void apply_management(Switch& sw, Host& host);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_MANAGEMENT_H
