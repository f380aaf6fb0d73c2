// SPDX-License-Identifier: Apache-2.0
//
// The machine's network interfaces: which exist, and which one is meant when none is named.
#include "gateway/interfaces.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netpacket/packet.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include <fmt/format.h>

#include "gateway/error.h"

namespace qel_gateway {

namespace {

using Addresses = std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)>;

Addresses all_addresses() {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    list = nullptr;
  }
  return {list, &::freeifaddrs};
}

bool is_packet(const ifaddrs* entry) {
  return entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_PACKET;
}

}  // namespace

std::vector<std::string> interface_names() {
  std::vector<std::string> names;
  const Addresses list = all_addresses();
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if (is_packet(entry)) {
      names.emplace_back(entry->ifa_name);
    }
  }
  std::ranges::sort(names);
  return names;
}

std::string only_interface() {
  std::vector<std::string> usable;
  const Addresses list = all_addresses();
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if (is_packet(entry) && (entry->ifa_flags & IFF_UP) != 0 &&
        (entry->ifa_flags & IFF_LOOPBACK) == 0) {
      usable.emplace_back(entry->ifa_name);
    }
  }
  if (usable.size() == 1) {
    return usable.front();
  }
  if (usable.empty()) {
    throw Error("no network interface is up; name one with -i, or a host with --udp",
                ExitCode::Usage);
  }
  std::ranges::sort(usable);
  throw Error(fmt::format("several network interfaces are up; name one with -i: {}",
                          fmt::join(usable, " ")),
              ExitCode::Usage);
}

std::optional<MacAddress> mac_of_address(uint32_t ip) {
  const Addresses list = all_addresses();
  std::string name;
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
      sockaddr_in address = {};
      std::memcpy(&address, entry->ifa_addr, sizeof address);
      if (ntohl(address.sin_addr.s_addr) == ip) {
        name = entry->ifa_name;
      }
    }
  }
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if (is_packet(entry) && name == entry->ifa_name) {
      sockaddr_ll address = {};
      std::memcpy(&address, entry->ifa_addr, sizeof address);
      MacAddress mac;
      std::copy_n(address.sll_addr, mac.bytes.size(), mac.bytes.begin());
      return mac;
    }
  }
  return std::nullopt;
}

}  // namespace qel_gateway
