// SPDX-License-Identifier: Apache-2.0
//
// qelctl port: changing one port. None of these commands is answered by the switch; each looks at
// the reports afterwards and says whether it took.
#include <algorithm>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "gateway/cli/context.h"
#include "gateway/cli/each_switch.h"
#include "gateway/cli/effect_output.h"
#include "gateway/ports.h"
#include "gateway/requests.h"
#include "gateway/settings.h"
#include "gateway/text.h"

namespace qel_gateway::cli {

namespace {

struct PortArguments {
  std::string port;
  std::string speed;
  int seconds = 5;
  bool wait = false;
  std::vector<std::string> settings;
};

using Arguments = std::shared_ptr<PortArguments>;

PortSettings parse_settings(const std::vector<std::string>& words) {
  PortSettings settings;
  for (const std::string& word : words) {
    const auto equals = word.find('=');
    const std::string name = word.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
    if (name == "speed" && std::ranges::find(speed_names(), value) != speed_names().end()) {
      settings.speed = value;
    } else if (std::ranges::find(port_switch_names(), name) != port_switch_names().end() &&
               (value == "0" || value == "1" || value == "on" || value == "off")) {
      settings.switches[name] = value == "1" || value == "on";
    } else {
      throw Error(fmt::format("\"{}\": expected speed=NAME ({}) or one of {} with =on or =off",
                              terminal_text(word), fmt::join(speed_names(), " "),
                              fmt::join(port_switch_names(), " ")),
                  ExitCode::Usage);
    }
  }
  return settings;
}

// What is to be asked before `port` goes down; empty: nothing. A switch that reports this gateway's
// MAC at one of its ports is reached through that one. Where none bears it (a switch that learns
// nobody's address, or not yet), any port with a link may be the way.
Task<std::string> question_before(Context& context, const Switch& one, std::string port) {
  const PortTable table =
      co_await read_ports(context.session(), one, kPortLink | kPortClient, context.patience());
  const auto is_ours = [&context](const Port& candidate) {
    return candidate.client && candidate.client->state == "ON" &&
           parse_mac(candidate.client->mac) == context.transport().own_mac();
  };
  const Port* found = table.find(port);
  if (found == nullptr) {
    co_return "";
  }
  if (is_ours(*found)) {
    co_return fmt::format("{} is reached through its port {}. Take it down?", title_of(one),
                          terminal_text(port));
  }
  const bool known = std::ranges::any_of(table.ports, is_ours);
  const bool linked = !found->link || found->link->up;
  co_return known || !linked ? ""
                             : fmt::format("{} may be reached through its port {}. Take it down?",
                                           title_of(one), terminal_text(port));
}

// Asks before a port is taken down through which a switch is, or may be, reached.
bool may_take_down(Context& context, const std::vector<Switch>& switches, const std::string& port) {
  if (context.options().yes) {
    return true;
  }
  for (const Switch& one : switches) {
    const std::string question = context.run(question_before(context, one, port));
    if (!question.empty() && !confirmed(context, question)) {
      return false;
    }
  }
  return true;
}

using Change = std::function<Task<EffectReport>(Context&, const Switch&)>;
using Text = std::function<std::string(std::string)>;

struct Command {
  std::string title;  // "port ge1 disable"
  Text text;
  Change change;
  bool takes_down = false;
};

ExitCode run_change(Context& context, const std::string& port, const Command& command) {
  if (context.options().dry_run) {
    return dry_run(context, [&](const std::string& mac) {
      return std::vector<std::string>{command.text(mac)};
    });
  }
  const auto switches = selected(context);
  if (command.takes_down && !may_take_down(context, switches, port)) {
    return ExitCode::Failed;
  }
  return each_switch(context, switches, false, [&](const Switch& one) -> Task<Told> {
    const EffectReport report = co_await command.change(context, one);
    Told told = tell_effect(context, one, command.title, report);
    told.json["port"] = port;
    co_return told;
  });
}

Command enable_command(const Arguments& arguments, bool enable) {
  return {fmt::format("port {} {}", terminal_text(arguments->port), enable ? "enable" : "disable"),
          [arguments, enable](const std::string& mac) {
            return port_enable_text(mac, arguments->port, enable);
          },
          [arguments, enable](Context& context, const Switch& one) {
            return enable_port(context.session(), one, arguments->port, enable, context.patience());
          },
          !enable};
}

Command speed_command(const Arguments& arguments) {
  return {fmt::format("port {} speed {}", terminal_text(arguments->port), arguments->speed),
          [arguments](const std::string& mac) {
            return port_speed_text(mac, arguments->port, arguments->speed);
          },
          [arguments](Context& context, const Switch& one) {
            return set_port_speed(context.session(), one, arguments->port, arguments->speed,
                                  context.patience());
          },
          false};
}

Command restart_command(const Arguments& arguments) {
  return {fmt::format("port {} restart", terminal_text(arguments->port)),
          [arguments](const std::string& mac) {
            return port_restart_text(mac, arguments->port, arguments->seconds);
          },
          [arguments](Context& context, const Switch& one) {
            return restart_port(context.session(), one, arguments->port, arguments->seconds,
                                arguments->wait, context.patience());
          },
          true};
}

Command config_command(const Arguments& arguments) {
  const PortSettings settings = parse_settings(arguments->settings);
  const auto enable = settings.switches.find("enable");
  return {fmt::format("port {} config", terminal_text(arguments->port)),
          [arguments, settings](const std::string& mac) {
            OrderedJson ports;
            ports[arguments->port] = port_settings_json(settings);
            return ports_config_text(mac, ports);
          },
          [arguments, settings](Context& context, const Switch& one) {
            return configure_port(context.session(), one, arguments->port, settings,
                                  context.patience());
          },
          enable != settings.switches.end() && !enable->second};
}

CLI::App* add_change(CLI::App& family, const char* name, const char* help,
                     const std::string& footer, const Arguments& arguments, Choice& choice,
                     const std::function<Command(const Arguments&)>& make) {
  auto* command = family.add_subcommand(name, help);
  command->footer(footer);
  command->add_option("PORT", arguments->port, "Name of the port, such as ge3")->required();
  command->callback([&choice, arguments, make] {
    choice.action = [arguments, make](Context& context) {
      return run_change(context, arguments->port, make(arguments));
    };
  });
  return command;
}

constexpr const char* kAsks =
    "Asks first, unless --yes, if the switch is or may be reached through the port.\n"
    "Each port with a link may be the way while the switch sees us at none.";

}  // namespace

void add_port(CLI::App& app, Choice& choice) {
  auto* family = app.add_subcommand("port", "Change one port");
  family->require_subcommand(0, 1);
  family->footer("Example:\n  qelctl -i eth1 port restart ge3 --seconds 5 --wait");
  const auto arguments = std::make_shared<PortArguments>();
  add_change(*family, "enable", "Enable a port", "Example:\n  qelctl -i eth1 port enable ge3",
             arguments, choice, [](const Arguments& a) { return enable_command(a, true); });
  add_change(*family, "disable", "Disable a port",
             fmt::format("{}\n\nExample:\n  qelctl -i eth1 port disable ge3", kAsks), arguments,
             choice, [](const Arguments& a) { return enable_command(a, false); });
  auto* speed = add_change(*family, "speed", "Set a port's speed",
                           "AN negotiates. A port without link cannot show whether it took.\n"
                           "Speeds: AN 10M 10M-H 10M-F 100M 100M-H 100M-F 1G 1G-F 2.5G 5G 10G "
                           "25G 40G 100G\n\n"
                           "Example:\n  qelctl -i eth1 port speed ge3 100M-F",
                           arguments, choice, speed_command);
  speed->add_option("SPEED", arguments->speed, "AN, 10M, 100M-F, 1G, ...")
      ->required()
      ->check(CLI::IsMember(speed_names()).description(""));
  auto* restart = add_change(*family, "restart", "Take a port down and up again",
                             fmt::format("{}\n\nExample:\n  qelctl -i eth1 port restart ge3 "
                                         "--seconds 5 --wait",
                                         kAsks),
                             arguments, choice, restart_command);
  restart->add_option("--seconds", arguments->seconds, "How long it stays down (5)")
      ->check(CLI::Range(1, 255))
      ->type_name("N");
  restart->add_flag("--wait", arguments->wait, "Wait until it is up again");
  auto* config =
      add_change(*family, "config", "Set several things of a port at once",
                 "Settings: speed=NAME; enable, iso, eee, llpp, mstp, lldp, poe with =on or =off.\n"
                 "enable=off asks as \"port disable\" does.\n\n"
                 "Example:\n  qelctl -i eth1 port config ge3 poe=off eee=on",
                 arguments, choice, config_command);
  config->add_option("SETTING", arguments->settings, "NAME=VALUE ...")->required();
}

}  // namespace qel_gateway::cli
