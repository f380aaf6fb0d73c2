// SPDX-License-Identifier: Apache-2.0
//
// See announcer.h.
#include "platform/linux/morvad/kernel/announcer.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

namespace morvad {
namespace {

std::string key_of(const LldpNeighbour& neighbour) {
  return neighbour.interface + " " + neighbour.id;
}

}  // namespace

std::string lldp_event(const LldpNeighbour& neighbour, const std::string& port,
                       const std::optional<std::string>& address) {
  json event = {{"type", "lldp_add"},
                {"mac", neighbour.mac},
                {"chassis_id", neighbour.chassis_id},
                {"local_interface", port},
                {"vlan_id", neighbour.vlan_id},
                {"time_to_live", neighbour.time_to_live},
                {"port_description", neighbour.port_description},
                {"system_name", neighbour.system_name},
                {"system_description", neighbour.system_description},
                // Also when empty: nobody else says what a neighbour is, so what is left out would
                // stay that of whoever was on the port before.
                {"system_capability", neighbour.system_capability}};
  if (address) {
    event["management_address"] = *address;
  }
  return to_text(event);
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

void Announcer::announce(const std::string& key, const LldpNeighbour& neighbour,
                         const std::string& port) {
  if (lldp_.size() < kNeighboursMax || lldp_.contains(key)) {
    Heard& heard = lldp_[key];
    heard = {neighbour, port, false};
    tell(heard);
  }
}

/// The address that he tells himself, else the latest that ARP told of him on this port. Where both
/// are silent somebody else may have told the agent: it keeps what it has. But what it has of
/// another neighbour is not this one's: "" takes it away.
std::optional<std::string> Announcer::address_of(const Heard& heard) const {
  const LldpNeighbour& neighbour = heard.neighbour;
  if (!neighbour.management_address.empty()) {
    return neighbour.management_address;
  }
  const auto [first, end] = owners_.equal_range({neighbour.mac, heard.port});
  if (first != end) {
    return std::prev(end)->second;
  }
  const auto before = last_.find(heard.port);
  if (before != last_.end() && before->second != neighbour.mac) {
    return "";
  }
  return std::nullopt;
}

/// Both return whether the agent took it. The text of a neighbour is made only now: his address may
/// have become known since he was heard.
bool Announcer::tell(Heard& heard) {
  heard.told = host_->send_event(lldp_event(heard.neighbour, heard.port, address_of(heard)));
  if (heard.told) {
    last_[heard.port] = heard.neighbour.mac;
  }
  return heard.told;
}

bool Announcer::tell(const std::string& ip, Learnt& learnt) {
  learnt.told = host_->send_event(arp_event(ip, learnt.mac, learnt.port));
  return learnt.told;
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
        announce(key, neighbour, port->built.name);
      }
    }
  }
}

void Announcer::address(const std::string& ip, const std::string& mac, const Port& port) {
  if (addresses_.size() >= kNeighboursMax && !addresses_.contains(ip)) {
    return;
  }
  Learnt& learnt = addresses_[ip];
  const std::string& name = port.built.name;
  if (learnt.mac != mac || learnt.port != name) {
    forget(ip, learnt);
    learnt = {mac, name, false};
    owners_.insert({{mac, name}, ip});  // behind those that he has already
  }
  if (!learnt.told) {
    tell(ip, learnt);
  }
}

void Announcer::address_gone(const std::string& ip) {
  const auto found = addresses_.find(ip);
  if (found != addresses_.end()) {
    forget(ip, found->second);
    addresses_.erase(found);
  }
}

void Announcer::forget(const std::string& ip, const Learnt& learnt) {
  const auto [first, end] = owners_.equal_range({learnt.mac, learnt.port});
  const auto found =
      std::find_if(first, end, [&ip](const auto& owner) { return owner.second == ip; });
  if (found != end) {
    owners_.erase(found);
  }
}

void Announcer::retry() {
  // Neighbours first: until the agent knows that no switch is on a port, it may pass over
  // addresses.
  for (auto& [key, heard] : lldp_) {
    if (!heard.told && !tell(heard)) {
      return;  // the agent does not listen: no use to ask it for each
    }
  }
  for (auto& [ip, learnt] : addresses_) {
    if (!learnt.told && !tell(ip, learnt)) {
      return;
    }
  }
}

void Announcer::tell_all_again() {
  last_.clear();
  for (auto& [key, heard] : lldp_) {
    heard.told = false;
  }
  for (auto& [ip, learnt] : addresses_) {
    learnt.told = false;
  }
}

}  // namespace morvad
