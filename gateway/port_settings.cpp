// SPDX-License-Identifier: Apache-2.0
//
// Settings of one port, and how their effect is seen in the port reports.
#include <algorithm>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

#include "gateway/error.h"
#include "gateway/requests.h"
#include "gateway/settings.h"
#include "gateway/settings_internal.h"
#include "gateway/text.h"

namespace qel_gateway {

namespace {

std::string names_of(const PortTable& table) {
  std::vector<std::string> names;
  for (const Port& port : table.ports) {
    names.push_back(terminal_text(port.name));
  }
  return fmt::format("{}", fmt::join(names, " "));
}

Task<void> require_port(Session& session, const Switch& one, const std::string& port,
                        Duration patience) {
  const PortTable table = co_await read_ports(session, one, 0, patience);
  if (table.find(port) == nullptr) {
    throw Error(fmt::format("no port \"{}\"; there are: {}", terminal_text(port), names_of(table)));
  }
}

// Whether the switch said all of this port that was asked for; a report can leave a port out.
bool reported(const Port* port, unsigned reports) {
  return port != nullptr && ((reports & kPortConfig) == 0 || port->config) &&
         ((reports & kPortLink) == 0 || port->link);
}

// Looks at one port after a set. `judge` sees it with all wanted reports in place.
Task<EffectReport> look_at_port(Session& session, const Switch& one, const std::string& name,
                                unsigned reports, Duration patience,
                                std::function<EffectReport(const Port&)> judge) {
  try {
    const PortTable table = co_await read_ports(session, one, reports, patience);
    const Port* port = table.find(name);
    if (!table.missing.empty() || !reported(port, reports)) {
      co_return EffectReport{Effect::Silent, "the switch does not report the port any more"};
    }
    co_return judge(*port);
  } catch (const Error& error) {
    if (error.code() != ExitCode::NoAnswer) {
      throw;
    }
  }
  co_return EffectReport{Effect::Silent, "sent, but the switch does not answer any more"};
}

struct WantedSpeed {
  int mbit = 0;  // 0: negotiated
  std::optional<bool> full;
};

// "100M-H" to 100 Mbit/s and half duplex.
WantedSpeed wanted_speed(const std::string& name) {
  constexpr double kGiga = 1000.0;
  WantedSpeed wanted;
  if (name == "AN") {
    return wanted;
  }
  double figure = 0;
  const auto end = std::from_chars(name.data(), name.data() + name.size(), figure).ptr;
  const bool giga = end != name.data() + name.size() && *end == 'G';
  wanted.mbit = static_cast<int>(std::lround(giga ? figure * kGiga : figure));
  if (name.ends_with("-H") || name.ends_with("-F")) {
    wanted.full = name.ends_with("-F");
  }
  return wanted;
}

std::string link_words(const PortLink& link) {
  return link.up ? fmt::format("the link runs at {} Mbit/s {} duplex", link.speed,
                               link.full_duplex ? "full" : "half")
                 : std::string("the port has no link");
}

EffectReport judge_speed(const Port& port, const WantedSpeed& wanted) {
  const PortLink& link = *port.link;
  if (!link.up) {
    return {Effect::Unseen, "sent; the port has no link, so its speed cannot be seen"};
  }
  if (wanted.mbit == 0) {
    return {Effect::Unseen,
            fmt::format("sent; {}, which says nothing about negotiation", link_words(link))};
  }
  const bool taken =
      link.speed == wanted.mbit && (!wanted.full || *wanted.full == link.full_duplex);
  return {taken ? Effect::Took : Effect::NotTaken, link_words(link)};
}

bool reported_switch(const PortConfig& config, const std::string& name) {
  const std::pair<const char*, bool> values[] = {
      {"enable", config.enabled}, {"iso", config.iso},   {"eee", config.eee}, {"llpp", config.llpp},
      {"mstp", config.mstp},      {"lldp", config.lldp}, {"poe", config.poe}};
  const auto found = std::ranges::find(values, name, [](const auto& pair) { return pair.first; });
  return found != std::end(values) && found->second;
}

EffectReport judge_settings(const Port& port, const PortSettings& settings) {
  std::vector<std::string> wrong;
  for (const auto& [name, value] : settings.switches) {
    if (reported_switch(*port.config, name) != value) {
      wrong.push_back(fmt::format("{}={}", name, value ? 0 : 1));
    }
  }
  if (!wrong.empty()) {
    return {Effect::NotTaken, fmt::format("the switch reports {}", fmt::join(wrong, " "))};
  }
  if (settings.speed) {
    EffectReport speed = judge_speed(port, wanted_speed(*settings.speed));
    if (speed.effect != Effect::Took) {
      return speed;
    }
  }
  return {Effect::Took, "the switch reports it so"};
}

EffectReport judge_restart(const Port& port, bool until_back) {
  const bool waiting = port.link->restart_left > 0;
  if (!until_back) {
    return waiting || !port.config->enabled
               ? EffectReport{Effect::Took,
                              fmt::format("down, back in {} s", port.link->restart_left)}
               : EffectReport{Effect::NotTaken, "the port was not seen to go down"};
  }
  return !waiting && port.config->enabled
             ? EffectReport{Effect::Took, fmt::format("enabled again; {}", link_words(*port.link))}
             : EffectReport{Effect::NotTaken, "the port did not come back"};
}

}  // namespace

OrderedJson port_settings_json(const PortSettings& settings) {
  OrderedJson row = OrderedJson::object();
  if (settings.speed) {
    row["speed"] = *settings.speed;
  }
  for (const std::string& name : port_switch_names()) {
    if (const auto found = settings.switches.find(name); found != settings.switches.end()) {
      row[name] = found->second ? 1 : 0;
    }
  }
  return row;
}

Task<EffectReport> enable_port(Session& session, const Switch& one, std::string port, bool enable,
                               Duration patience) {
  co_await require_port(session, one, port, patience);
  send_set(session, one, port_enable_text(mac_text(one.mac), port, enable));
  const auto judge = [enable](const Port& seen) {
    const bool now = seen.config->enabled;
    return EffectReport{now == enable ? Effect::Took : Effect::NotTaken,
                        now ? "the port is enabled" : "the port is disabled"};
  };
  const auto look = [&]() {
    return look_at_port(session, one, port, kPortConfig, patience, judge);
  };
  co_return co_await look_until(session, patience, look);
}

Task<EffectReport> set_port_speed(Session& session, const Switch& one, std::string port,
                                  std::string speed, Duration patience) {
  co_await require_port(session, one, port, patience);
  send_set(session, one, port_speed_text(mac_text(one.mac), port, speed));
  const WantedSpeed wanted = wanted_speed(speed);
  const auto judge = [&wanted](const Port& seen) { return judge_speed(seen, wanted); };
  const auto look = [&]() { return look_at_port(session, one, port, kPortLink, patience, judge); };
  // Where nothing can be seen there is nothing to wait for.
  const EffectReport first = co_await look();
  if (first.effect == Effect::Unseen && wanted.mbit == 0) {
    co_return first;
  }
  co_return co_await look_until(session, patience, look);
}

Task<EffectReport> restart_port(Session& session, const Switch& one, std::string port, int seconds,
                                bool until_back, Duration patience) {
  co_await require_port(session, one, port, patience);
  send_set(session, one, port_restart_text(mac_text(one.mac), port, seconds));
  const TimePoint sent = session.now();
  std::optional<TimePoint> first_seen;
  bool back = false;
  const auto judge = [&](const Port& seen) {
    first_seen = first_seen.value_or(session.now());
    return judge_restart(seen, back);
  };
  const auto look = [&]() {
    return look_at_port(session, one, port, kPortConfig | kPortLink, patience, judge);
  };
  const EffectReport down = co_await look_until(session, patience, look);
  // The first second ends with the switch's next tick, so it may have none of its length left.
  const bool too_short = first_seen && *first_seen - sent >= std::chrono::seconds(seconds - 1);
  if (down.effect == Effect::NotTaken && too_short) {
    co_return EffectReport{Effect::Unseen,
                           "sent; the port is enabled, and may have been down before"};
  }
  if (down.effect != Effect::Took || !until_back) {
    co_return down;
  }
  back = true;
  co_return co_await look_until(session, std::chrono::seconds(seconds) + patience, look);
}

Task<EffectReport> configure_port(Session& session, const Switch& one, std::string port,
                                  PortSettings settings, Duration patience) {
  co_await require_port(session, one, port, patience);
  OrderedJson ports;
  ports[port] = port_settings_json(settings);
  send_set(session, one, ports_config_text(mac_text(one.mac), ports));
  const auto judge = [&settings](const Port& seen) { return judge_settings(seen, settings); };
  const auto look = [&]() {
    return look_at_port(session, one, port, kPortConfig | kPortLink, patience, judge);
  };
  co_return co_await look_until(session, patience, look);
}

}  // namespace qel_gateway
