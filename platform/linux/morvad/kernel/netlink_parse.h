// SPDX-License-Identifier: Apache-2.0
//
// libnl's objects as what a NetlinkReader takes. Only for the files of netlink.h.
#ifndef MORVA_LINUX_MORVAD_KERNEL_NETLINK_PARSE_H
#define MORVA_LINUX_MORVAD_KERNEL_NETLINK_PARSE_H

#include <netlink/msg.h>
#include <netlink/route/link.h>

#include "platform/linux/morvad/kernel/netlink.h"

namespace morvad {

LinkState link_state(rtnl_link* link);

/// Hands one message of the kernel to `reader`; one that is of no interest is passed over.
void read_message(nl_msg* message, NetlinkReader& reader);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_NETLINK_PARSE_H
