// SPDX-License-Identifier: Apache-2.0
//
// See switch.h.
#include "platform/linux/morvad/switch.h"

#include <algorithm>

#include "platform/linux/morvad/log.h"
#include "platform/linux/morvad/names.h"

namespace morvad {

Switch::Switch(Board board, Settings& settings, Host& host)
    : board_(std::move(board)), settings_(&settings), host_(&host), poe_total_(board_.poe_budget) {
  ports_.resize(board_.ports.size());
  for (size_t i = 0; i < ports_.size(); i++) {
    ports_[i].built = board_.ports[i];
    load_port(ports_[i]);
  }
}

void Switch::load_port(Port& port) {
  const BoardPort& built = port.built;
  const std::string& name = built.name;
  port.binding = std::make_unique<MemoryBinding>();
  port.index = kPortIndexBase | static_cast<uint32_t>(built.number);
  port.enabled = settings_->number(port_key("port", name, "enable"), 1) != 0;
  const int code = settings_->number(port_key("port", name, "speed"), 0);
  port.speed_conf = code >= 0 && code < kSpeedCodes ? code : 0;
  port.cable = built.cable;
  port.far_speed = built.link_speed;
  port.far_full = built.full_duplex;
  port.poe_enabled = built.poe && settings_->number(switch_key("poe", name), 0) != 0;
  port.poe_priority = std::clamp(settings_->number(port_key("poe", name, "priority"), 0), 0, 255);
  port.poe_power = built.poe_power;
  port.base.tx_rate = built.tx_rate;
  port.base.rx_rate = built.rx_rate;
  port.since_ns = host_->now_ns();
}

Port* Switch::find(std::string_view name) {
  const auto found = std::find_if(ports_.begin(), ports_.end(),
                                  [name](const Port& port) { return port.built.name == name; });
  return found == ports_.end() ? nullptr : &*found;
}

Port* Switch::find_index(uint32_t index) {
  const auto found = std::find_if(ports_.begin(), ports_.end(),
                                  [index](const Port& port) { return port.index == index; });
  return found == ports_.end() ? nullptr : &*found;
}

void Switch::notify(const Port& port, PortEvent event) {
  if (observer_) {
    observer_(port, event);
  }
}

void Switch::changed(Port& port, const std::function<void()>& change) {
  const PortStatus before = port.status();
  port.settle(host_->now_ns());
  change();
  if (port.status() != before) {
    notify(port, PortEvent::status);
  }
}

void Switch::set_enabled(Port& port, bool enabled, bool keep) {
  std::string refusal;
  changed(port, [&] {
    refusal = port.binding->set_enabled(enabled);
    port.enabled = refusal.empty() ? enabled : port.enabled;
  });
  if (!refusal.empty()) {
    log_line(port.built.name + ": not " + (enabled ? "enabled: " : "disabled: ") + refusal);
    return;
  }
  if (keep) {
    settings_->store({{port_key("port", port.built.name, "enable"), enabled ? "1" : "0"}});
  }
}

void Switch::set_speed(Port& port, int code, bool keep) {
  std::string refusal;
  changed(port, [&] {
    refusal = port.binding->set_speed(code);
    port.speed_conf = refusal.empty() ? code : port.speed_conf;
  });
  if (!refusal.empty()) {
    log_line(port.built.name + ": speed " + speed_code_name(code) + " not set: " + refusal);
    return;
  }
  if (keep) {
    settings_->store({{port_key("port", port.built.name, "speed"), std::to_string(code)}});
  }
}

void Switch::bind(Port& port, std::unique_ptr<PortBinding> binding) {
  changed(port, [&] { port.binding = std::move(binding); });
}

void Switch::set_cable(Port& port, bool plugged) {
  changed(port, [&] { port.cable = plugged; });
}

void Switch::set_far_end(Port& port, int speed, bool full_duplex) {
  changed(port, [&] {
    port.far_speed = speed;
    port.far_full = full_duplex;
  });
}

void Switch::set_trunk(Port& port, int trunk) {
  if (port.trunk != trunk) {
    port.trunk = trunk;
    notify(port, PortEvent::trunk);
  }
}

void Switch::set_mirror(Port& port, int mirror) {
  if (port.mirror != mirror) {
    port.mirror = mirror;
    notify(port, PortEvent::mirror);
  }
}

void Switch::set_counters(Port& port, const Counters& counters, bool run) {
  port.base = counters;
  port.frozen = !run;
  port.since_ns = host_->now_ns();
}

int Switch::poe_used() const {
  if (poe_use_fixed_ >= 0) {
    return poe_use_fixed_;
  }
  int used = 0;
  for (const Port& port : ports_) {
    used += port.poe_drawn();
  }
  return used;
}

std::string Switch::blocked_names(bool Port::*mark) const {
  std::string names;
  for (const Port& port : ports_) {
    if (port.*mark) {
      names += names.empty() ? "" : " ";
      names += port.built.name;
    }
  }
  return names;
}

void Switch::back(Backing* backing, bool frames) {
  backing_ = backing;
  frames_to_cpu_ = frames;
}

std::string Switch::frames_to_cpu_set(bool on) {
  std::string refusal = backing_ != nullptr ? backing_->let_frames(on) : "";
  if (refusal.empty()) {
    frames_to_cpu_ = on;
  }
  return refusal;
}

std::string Switch::refresh_l2() {
  const bool kernels = std::any_of(ports_.begin(), ports_.end(),
                                   [](const Port& port) { return port.binding->driven(); });
  if (backing_ == nullptr || !kernels) {
    return {};
  }
  std::vector<L2Entry> entries;
  std::string refusal = backing_->read_l2(entries);
  if (!refusal.empty()) {
    return refusal;
  }
  // What morvactl put behind ports in memory stays.
  for (const L2Entry& entry : l2_.read(0, l2_.size())) {
    const Port* port = find_index(entry.port);
    if ((port == nullptr || !port->binding->driven()) && entries.size() < kL2TableSize) {
      entries.push_back(entry);
    }
  }
  l2_.assign(std::move(entries));
  return refusal;
}

void Switch::agent_started() {
  if (backing_ != nullptr) {
    backing_->agent_started();
  }
}

uint32_t Switch::oem_get(size_t word) {
  const std::string text = settings_->text("oem." + std::to_string(word));
  if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != text.npos) {
    return board_.oem[word];
  }
  const unsigned long long value = std::stoull(text);
  return value <= UINT32_MAX ? static_cast<uint32_t>(value) : board_.oem[word];
}

int Switch::oem_set(size_t word, uint32_t value) {
  return settings_->store({{"oem." + std::to_string(word), std::to_string(value)}});
}

}  // namespace morvad
