// SPDX-License-Identifier: Apache-2.0
//
// See netlink_parse.h.
#include "platform/linux/morvad/kernel/netlink_parse.h"

#include <arpa/inet.h>
#include <linux/if.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/route/link/bridge.h>
#include <netlink/route/neighbour.h>

#include <algorithm>
#include <cstring>

namespace morvad {
namespace {

constexpr int kDumpTries = 5;

/// States of a neighbour whose address is known.
constexpr int kKnown = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;

bool read_mac(nl_addr* address, Mac& out) {
  if (address == nullptr || nl_addr_get_len(address) != out.size()) {
    return false;
  }
  memcpy(out.data(), nl_addr_get_binary_addr(address), out.size());
  return true;
}

void read_link(rtnl_link* link, bool bridge_port, bool gone, NetlinkReader& reader) {
  const int index = rtnl_link_get_ifindex(link);
  if (bridge_port) {
    const int state = gone ? -1 : rtnl_link_bridge_get_port_state(link);
    if (gone || state >= 0) {
      reader.bridge_port(index, state);
    }
  } else if (gone) {
    reader.link_gone(index);
  } else if (rtnl_link_get_name(link) != nullptr) {
    reader.link(link_state(link));
  }
}

void read_fdb(rtnl_neigh* neighbour, bool gone, NetlinkReader& reader) {
  FdbEntry entry;
  entry.index = rtnl_neigh_get_ifindex(neighbour);
  entry.master = std::max(rtnl_neigh_get_master(neighbour), 0);
  const int vid = rtnl_neigh_get_vlan(neighbour);
  entry.vid = static_cast<uint16_t>(vid > 0 && vid < 4095 ? vid : 0);
  const int state = rtnl_neigh_get_state(neighbour);
  entry.own = (state & NUD_PERMANENT) != 0;
  entry.learnt = (state & (NUD_PERMANENT | NUD_NOARP)) == 0;
  if (read_mac(rtnl_neigh_get_lladdr(neighbour), entry.mac)) {
    reader.fdb(entry, gone);
  }
}

void read_arp(rtnl_neigh* neighbour, bool gone, NetlinkReader& reader) {
  nl_addr* address = rtnl_neigh_get_dst(neighbour);
  char text[INET_ADDRSTRLEN];
  if (address == nullptr || nl_addr_get_len(address) != sizeof(in_addr) ||
      inet_ntop(AF_INET, nl_addr_get_binary_addr(address), text, sizeof text) == nullptr) {
    return;
  }
  ArpEntry entry;
  entry.ip = text;
  entry.index = rtnl_neigh_get_ifindex(neighbour);
  entry.known = (rtnl_neigh_get_state(neighbour) & kKnown) != 0 &&
                read_mac(rtnl_neigh_get_lladdr(neighbour), entry.mac);
  reader.arp(entry, gone);
}

struct Parsing {
  NetlinkReader* reader;
  int type;
  int family;
};

void read_object(nl_object* object, void* raw) {
  const auto& parsing = *static_cast<Parsing*>(raw);
  switch (parsing.type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      // libnl calls a bridge itself AF_BRIDGE too; the message means a port of one by that.
      read_link(reinterpret_cast<rtnl_link*>(object), parsing.family == AF_BRIDGE,
                parsing.type == RTM_DELLINK, *parsing.reader);
      break;
    default: {
      auto* neighbour = reinterpret_cast<rtnl_neigh*>(object);
      const int family = rtnl_neigh_get_family(neighbour);
      const bool gone = parsing.type == RTM_DELNEIGH;
      if (family == AF_BRIDGE) {
        read_fdb(neighbour, gone, *parsing.reader);
      } else if (family == AF_INET) {
        read_arp(neighbour, gone, *parsing.reader);
      }
    }
  }
}

}  // namespace

LinkState link_state(rtnl_link* link) {
  LinkState out;
  out.index = rtnl_link_get_ifindex(link);
  const char* name = rtnl_link_get_name(link);
  out.name = name != nullptr ? name : "";
  const unsigned flags = rtnl_link_get_flags(link);
  out.up = (flags & IFF_UP) != 0;
  out.carrier = out.up && (flags & IFF_RUNNING) != 0 && (flags & IFF_LOWER_UP) != 0;
  out.master = std::max(rtnl_link_get_master(link), 0);
  out.tx_bytes = rtnl_link_get_stat(link, RTNL_LINK_TX_BYTES);
  out.rx_bytes = rtnl_link_get_stat(link, RTNL_LINK_RX_BYTES);
  out.fcs_errors = rtnl_link_get_stat(link, RTNL_LINK_RX_CRC_ERR);
  return out;
}

int read_dump(NetlinkReader& reader, const std::function<int()>& once) {
  int result = -NLE_DUMP_INTR;
  for (int i = 0; i < kDumpTries && result == -NLE_DUMP_INTR; i++) {
    reader.start_over();
    result = once();
  }
  return result;
}

void read_message(nl_msg* message, NetlinkReader& reader) {
  const nlmsghdr* header = nlmsg_hdr(message);
  if (!nlmsg_valid_hdr(header, sizeof(rtgenmsg))) {
    return;
  }
  const auto* general = static_cast<const rtgenmsg*>(nlmsg_data(header));
  Parsing parsing = {&reader, header->nlmsg_type, general->rtgen_family};
  switch (parsing.type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
      // What cannot be parsed is nothing that we asked for; the next dump tells the state.
      nl_msg_parse(message, read_object, &parsing);
      break;
    default:
      break;
  }
}

}  // namespace morvad
