// SPDX-License-Identifier: Apache-2.0
//
// See netlink.h.
#include "platform/linux/morvad/kernel/netlink.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/morvad/kernel/netlink_parse.h"

namespace morvad {
namespace {

constexpr int kReceiveBuffer = 1 << 20;  // bytes; the kernel may grant less

std::string reason(int result) {
  return result >= 0 ? std::string() : nl_geterror(result);
}

struct CallbackFree {
  void operator()(nl_cb* callback) const { nl_cb_put(callback); }
};
struct LinkFree {
  void operator()(rtnl_link* link) const { rtnl_link_put(link); }
};
struct AddrFree {
  void operator()(rtnl_addr* address) const { rtnl_addr_put(address); }
};
struct CacheFree {
  void operator()(nl_cache* cache) const { nl_cache_free(cache); }
};
using LinkPtr = std::unique_ptr<rtnl_link, LinkFree>;
using AddrPtr = std::unique_ptr<rtnl_addr, AddrFree>;

int on_message(nl_msg* message, void* reader) {
  read_message(message, *static_cast<NetlinkReader*>(reader));
  return NL_OK;
}

/// Receives what waits on `socket` once; the result is libnl's.
int receive(nl_sock* socket, NetlinkReader& reader) {
  const std::unique_ptr<nl_cb, CallbackFree> own(nl_socket_get_cb(socket));
  const std::unique_ptr<nl_cb, CallbackFree> callback(nl_cb_clone(own.get()));
  if (callback == nullptr) {
    return -NLE_NOMEM;
  }
  nl_cb_set(callback.get(), NL_CB_VALID, NL_CB_CUSTOM, on_message, &reader);
  return nl_recvmsgs(socket, callback.get());
}

/// The errno that stands closest to a failure that libnl reports.
int as_errno(int result) {
  switch (-result) {
    case NLE_SUCCESS:
      return 0;
    case NLE_PERM:
    case NLE_NOACCESS:
      return -EPERM;
    case NLE_NODEV:
      return -ENODEV;
    case NLE_NOADDR:
      return -EADDRNOTAVAIL;
    case NLE_EXIST:
      return -EEXIST;
    case NLE_NOMEM:
      return -ENOMEM;
    default:
      return -EINVAL;
  }
}

/// The interface's first IPv4 address, or null.
AddrPtr first_address(nl_sock* socket, int index) {
  nl_cache* raw = nullptr;
  if (rtnl_addr_alloc_cache(socket, &raw) < 0) {
    return nullptr;
  }
  const std::unique_ptr<nl_cache, CacheFree> cache(raw);
  for (nl_object* each = nl_cache_get_first(raw); each != nullptr; each = nl_cache_get_next(each)) {
    auto* address = reinterpret_cast<rtnl_addr*>(each);
    if (rtnl_addr_get_family(address) == AF_INET && rtnl_addr_get_ifindex(address) == index) {
      nl_object_get(each);
      return AddrPtr(address);
    }
  }
  return nullptr;
}

AddrPtr make_address(int index, const std::string& label, const Address& wanted) {
  AddrPtr address(rtnl_addr_alloc());
  nl_addr* local = nullptr;
  if (address == nullptr || nl_addr_parse(wanted.ip.c_str(), AF_INET, &local) < 0) {
    return nullptr;
  }
  rtnl_addr_set_ifindex(address.get(), index);
  const bool good = rtnl_addr_set_local(address.get(), local) == 0;
  nl_addr_put(local);
  rtnl_addr_set_prefixlen(address.get(), wanted.prefix);
  if (wanted.prefix < 31) {
    in_addr host{};
    memcpy(&host, nl_addr_get_binary_addr(rtnl_addr_get_local(address.get())), sizeof host);
    host.s_addr |=
        htonl(wanted.prefix == 0 ? ~uint32_t{0} : (uint32_t{1} << (32 - wanted.prefix)) - 1);
    nl_addr* broadcast = nl_addr_build(AF_INET, &host, sizeof host);
    rtnl_addr_set_broadcast(address.get(), broadcast);
    nl_addr_put(broadcast);
  }
  // Old ioctls, the agent's among them, know an address by its label only.
  return good && rtnl_addr_set_label(address.get(), label.c_str()) == 0 ? std::move(address)
                                                                        : nullptr;
}

}  // namespace

void Netlink::Closer::operator()(nl_sock* socket) const {
  nl_socket_free(socket);
}

Netlink::Netlink() : socket_(nl_socket_alloc()) {
  const int result = socket_ == nullptr ? -NLE_NOMEM : nl_connect(socket_.get(), NETLINK_ROUTE);
  unusable_ = reason(result);
}

std::string Netlink::dump(int type, int family, NetlinkReader& reader) {
  if (!unusable_.empty()) {
    return unusable_;
  }
  return reason(read_dump(reader, [this, type, family, &reader] {
    // The kernel takes either header by its size; both begin with the family.
    ifinfomsg link{};
    ndmsg neighbour{};
    link.ifi_family = static_cast<unsigned char>(family);
    neighbour.ndm_family = static_cast<unsigned char>(family);
    const bool links = type == RTM_GETLINK;
    const int sent =
        nl_send_simple(socket_.get(), type, NLM_F_DUMP,
                       links ? static_cast<void*>(&link) : static_cast<void*>(&neighbour),
                       links ? sizeof link : sizeof neighbour);
    return sent < 0 ? sent : receive(socket_.get(), reader);
  }));
}

std::string Netlink::dump_links(NetlinkReader& reader) {
  return dump(RTM_GETLINK, AF_UNSPEC, reader);
}

std::string Netlink::dump_bridge_ports(NetlinkReader& reader) {
  return dump(RTM_GETLINK, AF_BRIDGE, reader);
}

std::string Netlink::dump_fdb(NetlinkReader& reader) {
  return dump(RTM_GETNEIGH, AF_BRIDGE, reader);
}

std::string Netlink::dump_arp(NetlinkReader& reader) {
  return dump(RTM_GETNEIGH, AF_INET, reader);
}

std::string Netlink::get_link(int index, LinkState& out) {
  if (!unusable_.empty()) {
    return unusable_;
  }
  rtnl_link* raw = nullptr;
  const int result = rtnl_link_get_kernel(socket_.get(), index, nullptr, &raw);
  const LinkPtr link(raw);
  if (result >= 0) {
    out = link_state(raw);
  }
  return reason(result);
}

std::string Netlink::set_up(int index, bool up) {
  const LinkPtr which(rtnl_link_alloc());
  const LinkPtr change(rtnl_link_alloc());
  if (!unusable_.empty() || which == nullptr || change == nullptr) {
    return unusable_.empty() ? "no memory" : unusable_;
  }
  rtnl_link_set_ifindex(which.get(), index);
  if (up) {
    rtnl_link_set_flags(change.get(), IFF_UP);
  } else {
    rtnl_link_unset_flags(change.get(), IFF_UP);
  }
  return reason(rtnl_link_change(socket_.get(), which.get(), change.get(), 0));
}

int Netlink::address_set(const std::string& interface, const Address& address) {
  const auto index = static_cast<int>(if_nametoindex(interface.c_str()));
  if (index == 0) {
    return -ENODEV;
  }
  const AddrPtr wanted = unusable_.empty() ? make_address(index, interface, address) : nullptr;
  if (wanted == nullptr) {
    return -EINVAL;
  }
  // The old one goes first: beside it the new one would be second in the same network.
  const AddrPtr before = first_address(socket_.get(), index);
  if (before != nullptr) {
    const int result = rtnl_addr_delete(socket_.get(), before.get(), 0);
    if (result < 0) {
      return as_errno(result);
    }
  }
  const int result = rtnl_addr_add(socket_.get(), wanted.get(), 0);
  if (result < 0 && before != nullptr) {
    rtnl_addr_add(socket_.get(), before.get(), 0);
  }
  return result < 0 ? as_errno(result) : 0;
}

void NetlinkEvents::Closer::operator()(nl_sock* socket) const {
  nl_socket_free(socket);
}

NetlinkEvents::NetlinkEvents() : socket_(nl_socket_alloc()) {
  if (socket_ == nullptr) {
    unusable_ = "no memory";
    return;
  }
  nl_socket_disable_seq_check(socket_.get());
  int result = nl_connect(socket_.get(), NETLINK_ROUTE);
  if (result >= 0) {
    nl_socket_set_buffer_size(socket_.get(), kReceiveBuffer, 0);
    result = nl_socket_add_memberships(socket_.get(), RTNLGRP_LINK, RTNLGRP_NEIGH, 0);
  }
  if (result >= 0) {
    result = nl_socket_set_nonblocking(socket_.get());
  }
  unusable_ = reason(result);
}

int NetlinkEvents::fd() const {
  return nl_socket_get_fd(socket_.get());
}

bool NetlinkEvents::read(NetlinkReader& reader) {
  bool whole = true;
  for (;;) {
    const int result = receive(socket_.get(), reader);
    if (result == -NLE_AGAIN) {
      return whole;
    }
    if (result == -NLE_INTR) {
      continue;
    }
    if (result < 0) {
      whole = false;
      if (result != -NLE_NOMEM) {  // which stands for a queue that overflowed: there is more
        return whole;
      }
    }
  }
}

}  // namespace morvad
