// SPDX-License-Identifier: Apache-2.0
//
// See kernel_switch.h.
#include "platform/linux/morvad/kernel/kernel_switch.h"

#include <algorithm>

#include "platform/linux/morvad/kernel/collector.h"
#include "platform/linux/morvad/kernel/kernel_port.h"
#include "platform/linux/morvad/log.h"
#include "platform/linux/morvad/management.h"
#include "platform/linux/morvad/names.h"

namespace morvad {
namespace {

/// More than this of the bridge's table is not kept for finding out who is behind which port.
constexpr size_t kFdbMax = kL2TableSize;

std::string mac_text(const Mac& mac) {
  std::string text;
  append_mac(text, mac);
  return text;
}

void log_failure(const char* what, const std::string& refusal) {
  if (!refusal.empty()) {
    log_line(std::string(what) + " not read: " + refusal);
  }
}

}  // namespace

KernelSwitch::KernelSwitch(event_base* base, Switch& sw, Host& host, FrameGate::Nft nft)
    : base_(base),
      switch_(&sw),
      host_(&host),
      gate_(sw.board().management.interface, std::move(nft)),
      announcer_(sw, host),
      lldp_(base, [this](const LldpNews& news) { announcer_.lldp(news); }) {}

KernelSwitch::~KernelSwitch() {
  if (readable_ != nullptr) {
    event_free(readable_);
  }
  switch_->back(nullptr, true);
  for (const PortPlace& place : places_) {
    place.port->binding = std::make_unique<MemoryBinding>();
  }
}

std::string KernelSwitch::start() {
  for (Port& port : switch_->ports()) {
    if (!port.built.interface.empty()) {
      auto binding = std::make_unique<KernelPort>(port.built.interface, netlink_, pause_);
      places_.push_back({&port, binding.get()});
      switch_->bind(port, std::move(binding));
    }
  }
  const bool shut = gate_.found_shut();
  switch_->back(this, !shut);
  if (!events_.unusable().empty()) {
    const std::string refusal = "rtnetlink: " + events_.unusable();
    log_failure("interfaces", places_.empty() ? refusal : "");
    return places_.empty() ? "" : refusal;
  }
  readable_ = event_new(
      base_, events_.fd(), EV_READ | EV_PERSIST,
      [](evutil_socket_t, short, void* raw) { static_cast<KernelSwitch*>(raw)->read_events(); },
      this);
  event_add(readable_, nullptr);
  read_all();
  for (const PortPlace& place : places_) {
    if (place.binding->index() == 0) {
      log_line(place.port->built.name + ": there is no interface " + place.binding->interface() +
               " yet");
    }
  }
  if (bridge_ == 0) {
    log_line("there is no " + switch_->board().management.interface + " yet");
  }
  if (!places_.empty()) {
    tick();
  }
  return {};
}

KernelSwitch::PortPlace* KernelSwitch::place_of_index(int index) {
  const auto found = std::find_if(places_.begin(), places_.end(), [index](const PortPlace& place) {
    return index != 0 && place.binding->index() == index;
  });
  return found == places_.end() ? nullptr : &*found;
}

KernelSwitch::PortPlace* KernelSwitch::place_of_name(const std::string& interface) {
  const auto found = std::find_if(
      places_.begin(), places_.end(),
      [&interface](const PortPlace& place) { return place.binding->interface() == interface; });
  return found == places_.end() ? nullptr : &*found;
}

// --- what the kernel tells --------------------------------------------------------------------

void KernelSwitch::link(const LinkState& told) {
  // News may be older than what was read in between: they only say whom to look at.
  LinkState link = told;
  const bool ours = place_of_index(link.index) != nullptr || place_of_name(link.name) != nullptr;
  if (reading_news_ && ours && !netlink_.get_link(told.index, link).empty()) {
    return;  // it is gone already, which the kernel will say too
  }
  PortPlace* before = place_of_index(link.index);
  if (before != nullptr && before->binding->interface() != link.name) {
    lost(*before, "is now called " + link.name);
  }
  bridge_link(link);
  PortPlace* place = place_of_name(link.name);
  if (place == nullptr) {
    return;
  }
  if (place->binding->index() != 0 && place->binding->index() != link.index) {
    lost(*place, "was replaced by another");
  }
  if (place->binding->index() == 0) {
    found(*place, link);
  } else {
    update(*place, link);
  }
}

void KernelSwitch::bridge_link(const LinkState& link) {
  const std::string& name = switch_->board().management.interface;
  if (link.name == name && link.index != bridge_) {
    bridge_ = link.index;
    log_line(name + " is there, interface " + std::to_string(link.index));
    const std::string refusal = gate_.interface_made(link.index);
    if (!refusal.empty()) {
      log_line("the gateway's frames: " + refusal);
      switch_->back(this, gate_.open());
    }
    apply_management(*switch_, *host_);
  } else if (link.name != name && link.index == bridge_) {
    log_line(name + " is now called " + link.name);
    bridge_ = 0;
    gate_.interface_gone();
  }
}

void KernelSwitch::link_gone(int index) {
  PortPlace* place = place_of_index(index);
  if (place != nullptr) {
    lost(*place, "is gone");
  }
  if (index == bridge_) {
    log_line(switch_->board().management.interface + " is gone");
    bridge_ = 0;
    gate_.interface_gone();
    fdb_.clear();
    addresses_.clear();
  }
}

void KernelSwitch::bridge_port(int index, int state) {
  PortPlace* place = place_of_index(index);
  if (place == nullptr) {
    return;
  }
  const bool blocked = state == kBridgeBlocking;
  if (place->port->stp_blocked != blocked) {
    log_line(place->port->built.name + (blocked ? " is blocked" : " is not blocked any more"));
    place->port->stp_blocked = blocked;
  }
}

void KernelSwitch::found(PortPlace& place, const LinkState& link) {
  log_line(place.port->built.name + ": interface " + link.name + " is there, number " +
           std::to_string(link.index));
  update(place, link);
  configure(place, link);
}

void KernelSwitch::update(PortPlace& place, const LinkState& link) {
  const int master = place.binding->master();
  const bool known = place.binding->index() != 0;
  switch_->news(*place.port, [&place, &link] {
    place.binding->take(link);
    place.port->enabled = link.up;
  });
  if (!known || master != link.master) {
    const std::string& bridge = switch_->board().management.interface;
    if (bridge_ == 0 || link.master != bridge_) {
      log_line(place.port->built.name + ": interface " + link.name + " does not belong to " +
               bridge);
    } else if (known) {
      log_line(place.port->built.name + ": interface " + link.name + " belongs to " + bridge +
               " now");
    }
  }
}

/// What was configured counts for an interface that appears; what never was stays as it is.
void KernelSwitch::configure(PortPlace& place, const LinkState& link) {
  const std::string& name = place.port->built.name;
  Settings& settings = switch_->settings();
  const std::string enable = settings.text(port_key("port", name, "enable"));
  if (!enable.empty() && (enable != "0") != link.up) {
    switch_->set_enabled(*place.port, enable != "0", false);
  }
  const int code = settings.number(port_key("port", name, "speed"), 0);
  if (code > 0 && code < kSpeedCodes) {
    switch_->set_speed(*place.port, code, false);
  }
}

void KernelSwitch::lost(PortPlace& place, const std::string& how) {
  const int index = place.binding->index();
  log_line(place.port->built.name + ": interface " + place.binding->interface() + " " + how);
  switch_->news(*place.port, [&place] { place.binding->leave(); });
  place.port->stp_blocked = false;
  std::erase_if(fdb_, [index](const auto& each) { return each.second == index; });
}

void KernelSwitch::fdb(const FdbEntry& entry, bool gone) {
  if (places_.empty() || entry.master == 0 || entry.master != bridge_ || entry.own) {
    return;
  }
  const std::pair<Mac, uint16_t> key(entry.mac, entry.vid);
  if (gone) {
    fdb_.erase(key);
    return;
  }
  if (fdb_.size() >= kFdbMax && !fdb_.contains(key)) {
    return;
  }
  const auto [place, fresh] = fdb_.insert({key, entry.index});
  if (!fresh && place->second == entry.index) {
    return;
  }
  place->second = entry.index;
  for (const auto& [ip, mac] : addresses_) {
    if (mac == entry.mac) {
      announce_address(ip, mac);
    }
  }
}

void KernelSwitch::arp(const ArpEntry& entry, bool gone) {
  if (places_.empty() || entry.index != bridge_) {
    return;
  }
  if (gone) {
    addresses_.erase(entry.ip);
    announcer_.address_gone(entry.ip);
  } else if (entry.known &&
             (addresses_.size() < Announcer::kNeighboursMax || addresses_.contains(entry.ip))) {
    addresses_[entry.ip] = entry.mac;
    announce_address(entry.ip, entry.mac);
  }
}

void KernelSwitch::announce_address(const std::string& ip, const Mac& mac) {
  const auto found = fdb_.lower_bound({mac, 0});
  if (found == fdb_.end() || found->first.first != mac) {
    return;
  }
  const PortPlace* place = place_of_index(found->second);
  if (place != nullptr) {
    announcer_.address(ip, mac_text(mac), *place->port);
  }
}

// --- reading ----------------------------------------------------------------------------------

void KernelSwitch::read_all() {
  Collector now;
  const std::string refusal = netlink_.dump_links(now);
  log_failure("interfaces", refusal);
  if (refusal.empty()) {
    const auto there = [&now](int index) {
      return std::any_of(now.links.begin(), now.links.end(),
                         [index](const LinkState& each) { return each.index == index; });
    };
    for (const PortPlace& place : places_) {
      if (place.binding->index() != 0 && !there(place.binding->index())) {
        link_gone(place.binding->index());
      }
    }
    if (bridge_ != 0 && !there(bridge_)) {
      link_gone(bridge_);
    }
  }
  // The bridge first, so that its ports are known to belong to it.
  const std::string& bridge = switch_->board().management.interface;
  std::stable_partition(now.links.begin(), now.links.end(),
                        [&bridge](const LinkState& each) { return each.name == bridge; });
  const uint64_t time = host_->now_ns();
  for (const LinkState& each : now.links) {
    link(each);
    const PortPlace* place = place_of_index(each.index);
    if (place != nullptr) {
      place->binding->sample(each, time);
    }
  }
  log_failure("bridge ports", netlink_.dump_bridge_ports(*this));
}

void KernelSwitch::read_events() {
  reading_news_ = true;
  const bool whole = events_.read(*this);
  reading_news_ = false;
  if (!whole) {
    log_line("rtnetlink: news were lost, everything is read anew");
    fdb_.clear();
    addresses_.clear();
    read_all();
    log_failure("layer-2 table", netlink_.dump_fdb(*this));
    log_failure("neighbours", netlink_.dump_arp(*this));
  }
}

void KernelSwitch::tick() {
  if (ticks_ == 0) {
    log_failure("layer-2 table", netlink_.dump_fdb(*this));
    log_failure("neighbours", netlink_.dump_arp(*this));
  } else {
    read_all();
  }
  announcer_.retry();
  lldp_.tick(ticks_ % kListTicks == 0);
  ticks_ = ticks_ % kListTicks + 1;
  host_->after(kTickSeconds, [this] { tick(); });
}

// --- what the switch asks for -----------------------------------------------------------------

std::string KernelSwitch::let_frames(bool through) {
  // Without the kernel's news nobody knows which interface the rule belongs on.
  return readable_ != nullptr ? gate_.set(through) : "rtnetlink: " + events_.unusable();
}

void KernelSwitch::agent_started() {
  announcer_.tell_all_again();
}

std::string KernelSwitch::read_l2(std::vector<L2Entry>& out) {
  constexpr uint32_t kLearnt = 2;
  constexpr uint32_t kStatic = 1;
  Collector table;
  std::string refusal = netlink_.dump_fdb(table);
  for (const FdbEntry& entry : table.entries) {
    const PortPlace* place = place_of_index(entry.index);
    if (entry.master == 0 || entry.master != bridge_ || entry.own || place == nullptr ||
        out.size() >= kL2TableSize) {
      continue;
    }
    L2Entry row;
    row.port = place->port->index;
    row.type = entry.learnt ? kLearnt : kStatic;
    row.vid = entry.vid != 0 ? entry.vid : 1;
    row.mac = entry.mac;
    out.push_back(row);
  }
  return refusal;
}

}  // namespace morvad
