// SPDX-License-Identifier: Apache-2.0
//
// qelctl show, ports, stats, poe, clients: what switches report, read once.
#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "gateway/cli/context.h"
#include "gateway/cli/each_switch.h"
#include "gateway/cli/identity_output.h"
#include "gateway/cli/panel.h"
#include "gateway/cli/port_output.h"
#include "gateway/ports.h"
#include "gateway/requests.h"
#include "gateway/text.h"

namespace qel_gateway::cli {

namespace {

constexpr Duration kReadPatience{4000};

using Show = std::string (*)(const PortTable&, const TableStyle&);

struct PortView {
  unsigned reports = 0;
  Show show = nullptr;
};

// Reads the reports of one switch and shows them.
Task<Told> tell_ports(Context& context, const Switch& one, PortView view) {
  const PortTable table =
      co_await read_ports(context.session(), one, view.reports, context.patience(kReadPatience));
  Told told;
  told.json = ports_json(table);
  told.text = table.ports.empty() ? "no ports\n" : view.show(table, context.style());
  if (!table.missing.empty()) {
    context.note(fmt::format("{}: no answer to {}", title_of(one), fmt::join(table.missing, ", ")));
    told.code = ExitCode::NoAnswer;
  }
  co_return told;
}

ExitCode run_ports(Context& context, PortView view) {
  if (context.options().dry_run) {
    return dry_run(context, [&](const std::string& mac) {
      std::vector<std::string> texts;
      for (const std::string& subject : port_subjects(view.reports)) {
        texts.push_back(get_text(mac, subject));
      }
      return texts;
    });
  }
  const auto switches = selected(context, Search::Quick);
  return each_switch(context, switches, true, [&context, view](const Switch& one) {
    return tell_ports(context, one, view);
  });
}

std::string show_ports(const PortTable& table, const TableStyle& style) {
  return ports_table(table).text(style);
}

std::string show_stats(const PortTable& table, const TableStyle& style) {
  return stats_table(table).text(style);
}

std::string show_poe(const PortTable& table, const TableStyle& style) {
  const Table out = poe_table(table);
  return out.size() == 0 ? "no port feeds power\n" : out.text(style);
}

std::string show_clients(const PortTable& table, const TableStyle& style) {
  const Table out = clients_table(table);
  return out.size() == 0 ? "no clients\n" : out.text(style);
}

constexpr PortView kPortsView = {kPortEverything, show_ports};
constexpr PortView kPanelView = {kPortConfig | kPortLink, panel_text};
constexpr PortView kStatsView = {kPortStats, show_stats};
constexpr PortView kPoeView = {kPortPoe | kPortLink, show_poe};
constexpr PortView kClientsView = {kPortClient, show_clients};

void add_view(CLI::App& app, Choice& choice, const char* name, const char* help, const char* footer,
              PortView view) {
  auto* command = app.add_subcommand(name, help);
  command->footer(footer);
  command->callback([&choice, view] {
    choice.action = [view](Context& context) { return run_ports(context, view); };
  });
}

std::string identity_lines(const Switch& one, bool colour) {
  const Identity& id = one.identity;
  const std::pair<const char*, std::string> lines[] = {
      {"name", terminal_text(id.name)},
      {"mac", mac_display(one.mac)},
      {"address", id.ip.empty() ? "none" : fmt::format("{}/{}", terminal_text(id.ip), id.prefix)},
      {"model", terminal_text(id.model)},
      {"type", terminal_text(id.type)},
      {"hardware", terminal_text(id.hw_version)},
      {"software", terminal_text(id.sw_version)},
      {"uptime", short_duration(id.uptime)},
      {"cpu", fmt::format("{}%", id.cpu)},
      {"memory", fmt::format("{}%", id.mem)},
      {"active", fmt::format("{}", id.sys_active)},
  };
  std::string out;
  for (const auto& [label, value] : lines) {
    out += tinted(fmt::format("{:<9}", label), Tint::Bold, colour) + " " + value + "\n";
  }
  return out;
}

Task<Told> tell_identity(const Context& context, const Switch& one) {
  Told told;
  told.json = identity_json(one);
  told.text = identity_lines(one, context.style().colour);
  co_return told;
}

ExitCode run_show(Context& context) {
  if (context.options().dry_run) {
    return dry_probe(context);
  }
  const auto switches = selected(context, Search::Quick);
  return each_switch(context, switches, true,
                     [&context](const Switch& one) { return tell_identity(context, one); });
}

}  // namespace

void add_show(CLI::App& app, Choice& choice) {
  auto* command = app.add_subcommand("show", "Show who a switch is and how it does");
  command->footer("Example:\n  qelctl -i eth1 --switch office-sw show");
  command->callback([&choice] { choice.action = run_show; });
}

void add_ports(CLI::App& app, Choice& choice) {
  auto* command = app.add_subcommand("ports", "Show the ports: link, PoE, traffic, clients");
  command->footer(
      "TX/s and RX/s are bytes a second. On a narrow terminal the columns that matter\n"
      "least are left out.\n\n"
      "Example:\n  qelctl -i eth1 --switch all ports --json");
  auto panel = std::make_shared<bool>(false);
  command->add_flag("--panel", *panel, "Draw the front panel instead");
  command->callback([&choice, panel] {
    choice.action = [panel](Context& context) {
      return run_ports(context, *panel && !context.options().json ? kPanelView : kPortsView);
    };
  });
  add_view(app, choice, "stats", "Show the traffic of the ports",
           "TX and RX are bytes, TX/s and RX/s bytes a second.\n\n"
           "Example:\n  qelctl -i eth1 stats",
           kStatsView);
  add_view(app, choice, "poe", "Show which ports feed power",
           "Example:\n  qelctl -i eth1 poe --json", kPoeView);
  add_view(app, choice, "clients", "Show the clients seen at the ports",
           "Example:\n  qelctl -i eth1 --switch all clients", kClientsView);
}

}  // namespace qel_gateway::cli
