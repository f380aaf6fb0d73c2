// SPDX-License-Identifier: Apache-2.0
//
// See announcer.h.
#include "platform/linux/morvad/kernel/announcer.h"

#include <algorithm>
#include <set>

namespace morvad {
namespace {

std::string key_of(const LldpNeighbour& neighbour) {
  return neighbour.interface + " " + neighbour.id;
}

}  // namespace

std::string lldp_event(const LldpNeighbour& neighbour, const std::string& port) {
  return to_text({{"type", "lldp_add"},
                  {"mac", neighbour.mac},
                  {"chassis_id", neighbour.chassis_id},
                  {"local_interface", port},
                  {"vlan_id", neighbour.vlan_id},
                  {"management_address", neighbour.management_address},
                  {"time_to_live", neighbour.time_to_live},
                  {"port_description", neighbour.port_description},
                  {"system_name", neighbour.system_name},
                  {"system_description", neighbour.system_description},
                  {"system_capability", neighbour.system_capability}});
}

std::string arp_event(const std::string& ip, const std::string& mac, const std::string& port) {
  return to_text({{"type", "arpsnoop_add"}, {"mac", mac}, {"ip", ip}, {"port", port}});
}

Port* Announcer::port_of(const std::string& interface) {
  for (Port& port : switch_->ports()) {
    if (!interface.empty() && port.built.interface == interface) {
      return &port;
    }
  }
  return nullptr;
}

void Announcer::announce(const std::string& key, const std::string& text, bool again) {
  if (lldp_.size() >= kNeighboursMax && !lldp_.contains(key)) {
    return;
  }
  Entry& entry = lldp_[key];
  if (entry.told && entry.text == text && !again) {
    return;
  }
  entry.text = text;
  entry.told = host_->send_event(text);
}

void Announcer::lldp(const LldpNews& news) {
  std::set<std::string> listed;
  for (const LldpNeighbour& neighbour : news.neighbours) {
    listed.insert(key_of(neighbour));
  }
  if (news.what == "listed") {
    std::erase_if(lldp_, [&](const auto& each) { return !listed.contains(each.first); });
    std::erase_if(places_, [&](const auto& each) { return !listed.contains(each.second); });
  }
  for (const LldpNeighbour& neighbour : news.neighbours) {
    const std::string key = key_of(neighbour);
    Port* port = port_of(neighbour.interface);
    if (news.what == "deleted") {
      lldp_.erase(key);
      std::erase_if(places_, [&key](const auto& each) { return each.second == key; });
    } else if (port != nullptr && !neighbour.mac.empty()) {
      const auto place = places_.find(neighbour.mac);
      // lldpd keeps who left a port until his time is over; he is where he was heard last.
      const bool left = news.what == "listed" && place != places_.end() && place->second != key;
      if (!left && (news.what != "listed" || port->status().link != 0)) {
        places_[neighbour.mac] = key;
        announce(key, lldp_event(neighbour, port->built.name), true);
      }
    }
  }
}

void Announcer::address(const std::string& ip, const std::string& mac, const Port& port) {
  const std::string text = arp_event(ip, mac, port.built.name);
  if (addresses_.size() >= kNeighboursMax && !addresses_.contains(ip)) {
    return;
  }
  Entry& entry = addresses_[ip];
  if (!entry.told || entry.text != text) {
    entry.text = text;
    entry.told = host_->send_event(text);
  }
}

void Announcer::address_gone(const std::string& ip) {
  addresses_.erase(ip);
}

void Announcer::retry() {
  for (auto* entries : {&lldp_, &addresses_}) {
    for (auto& [key, entry] : *entries) {
      if (!entry.told && !(entry.told = host_->send_event(entry.text))) {
        return;  // the agent does not listen: no use to ask it for each
      }
    }
  }
}

void Announcer::tell_all_again() {
  for (auto* entries : {&lldp_, &addresses_}) {
    for (auto& [key, entry] : *entries) {
      entry.told = false;
    }
  }
}

}  // namespace morvad
