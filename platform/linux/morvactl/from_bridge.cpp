// SPDX-License-Identifier: Apache-2.0
//
// See from_bridge.h. What the kernel does not know (where a port sits on the panel, serial number
// and model) is filled in with what is likely; the file is there to be edited.
#include "platform/linux/morvactl/from_bridge.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "platform/linux/fd.h"
#include "platform/linux/morvactl/client.h"
#include "platform/linux/morvad/board.h"
#include "platform/linux/morvad/kernel/collector.h"
#include "platform/linux/morvad/kernel/ethtool.h"
#include "platform/linux/morvad/kernel/netlink.h"
#include "platform/linux/morvad/names.h"

namespace morvactl {
namespace {

constexpr int kSpeeds[] = {100000, 40000, 25000, 10000, 5000, 2500, 1000, 100, 10};
constexpr int kUsualSpeed = 1000;  // of an interface that tells none

std::string mac_of(const std::string& interface) {
  ifreq request{};
  memcpy(request.ifr_name, interface.data(), std::min(interface.size(), size_t{IFNAMSIZ - 1}));
  const UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd.valid() || ioctl(fd.get(), SIOCGIFHWADDR, &request) != 0) {
    throw Failure(interface + ": " + strerror(errno));
  }
  std::array<uint8_t, 6> mac{};
  memcpy(mac.data(), request.ifr_hwaddr.sa_data, mac.size());
  std::string text;
  morvad::append_mac(text, mac);
  return text;
}

/// The interfaces of the bridge, "swp2" before "swp10".
std::vector<std::string> members(const std::string& bridge) {
  morvad::Collector dump;
  const std::string refusal = morvad::Netlink().dump_links(dump);
  if (!refusal.empty()) {
    throw Failure("rtnetlink: " + refusal);
  }
  const auto found =
      std::find_if(dump.links.begin(), dump.links.end(),
                   [&bridge](const morvad::LinkState& each) { return each.name == bridge; });
  if (found == dump.links.end()) {
    throw Failure("there is no interface " + bridge);
  }
  std::vector<std::string> names;
  for (const morvad::LinkState& each : dump.links) {
    if (each.master == found->index) {
      names.push_back(each.name);
    }
  }
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
  });
  return names;
}

json port_row(const std::string& interface, int number) {
  morvad::EthtoolLink link;
  morvad::ethtool_read(interface, link);  // a driver that tells nothing leaves the usual
  const int told = std::max(link.max_speed, link.speed);
  const auto* fits = std::find_if(std::begin(kSpeeds), std::end(kSpeeds),
                                  [told](int speed) { return speed <= told; });
  const int speed = fits != std::end(kSpeeds) ? *fits : kUsualSpeed;
  return {{"name", interface},
          {"number", number},
          {"class", speed <= 100    ? "fast"
                    : speed <= 2500 ? "giga"
                                    : "ten_giga"},
          {"medium", link.fibre ? "fibre" : "copper"},
          {"max_speed", speed},
          {"position", {{"x", (number + 1) / 2}, {"y", 2 - number % 2}}},
          {"poe", false},
          {"link", {{"up", false}}},
          {"interface", interface}};
}

/// What the host says of itself, as far as a board file may hold it.
std::string plain(const char* text) {
  std::string kept = text;
  std::erase_if(kept, [](char c) { return !morvad::is_plain({&c, 1}); });
  return kept;
}

}  // namespace

std::string board_from_bridge(const std::string& bridge) {
  utsname host{};
  uname(&host);
  const std::string mac = mac_of(bridge);
  std::string serial = mac;
  std::erase(serial, ':');
  json ports = json::array();
  for (const std::string& name : members(bridge)) {
    if (morvad::is_port_name(name) && ports.size() < morvad::kMaxPorts) {
      ports.push_back(port_row(name, static_cast<int>(ports.size()) + 1));
    }
  }
  if (ports.empty()) {
    throw Failure(bridge + " has no interface that can be a port");
  }
  // Keys stay in the order of writing, as a reader expects them.
  nlohmann::ordered_json board = {{"name", bridge},
                                  {"mac", mac},
                                  {"management", {{"interface", "vlanif1"}}},
                                  {"allow_host_reboot", false},
                                  {"nvram",
                                   {{"product_sn", serial},
                                    {"product_hw_ver", "1"},
                                    {"product_model", "LINUX-BRIDGE"},
                                    {"firmware_ver", plain(host.release)},
                                    {"product_description", plain(host.nodename)},
                                    {"have_poe", "0"}}},
                                  {"ports", std::move(ports)}};
  return board.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace morvactl
