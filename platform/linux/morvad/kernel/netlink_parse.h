// SPDX-License-Identifier: Apache-2.0
//
// libnl's objects as what a NetlinkReader takes. Only for the files of netlink.h and their tests.
#ifndef MORVA_LINUX_MORVAD_KERNEL_NETLINK_PARSE_H
#define MORVA_LINUX_MORVAD_KERNEL_NETLINK_PARSE_H

#include <netlink/msg.h>
#include <netlink/route/link.h>

#include <functional>

#include "platform/linux/morvad/kernel/netlink.h"

namespace morvad {

LinkState link_state(rtnl_link* link);

/// Calls `once`, which hands one dump to `reader` and returns libnl's result, until one comes
/// whole. A table that changes while it is read is read again, a few times: the result is then that
/// of the last, -NLE_DUMP_INTR, and `reader` has what the last told.
int read_dump(NetlinkReader& reader, const std::function<int()>& once);

/// Asks ethtool's netlink family, `family`, for the pause frames of the interface `index`. False:
/// no room.
bool put_pause_request(nl_msg* message, int family, int index);

/// Received pause frames as one answer tells them; 0 where it does not.
uint64_t read_pause_answer(nl_msg* message);

/// Hands one message of the kernel to `reader`; one that is of no interest is passed over.
void read_message(nl_msg* message, NetlinkReader& reader);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_KERNEL_NETLINK_PARSE_H
