// SPDX-License-Identifier: Apache-2.0
//
// One command, several switches.
#include "gateway/cli/each_switch.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iostream>

#include <poll.h>

#include <fmt/format.h>

#include "gateway/cli/identity_output.h"
#include "gateway/cli/interrupt.h"
#include "gateway/text.h"

namespace qel_gateway::cli {

namespace {

constexpr Duration kQuickWindow{1500};
constexpr Duration kWholeWindow{2500};  // longer than a switch waits for one of its modules

std::string heading(const Context& context, const Switch& one) {
  std::string text = terminal_text(one.identity.name);
  text += (text.empty() ? "" : "  ") + mac_display(one.mac);
  if (!one.identity.model.empty()) {
    text += "  " + terminal_text(one.identity.model);
  }
  return tinted(text, Tint::Bold, context.style().colour) + "\n";
}

Task<void> run_job(Context& context, const Switch& one, const SwitchJob& job, Told& told) {
  try {
    told = co_await job(one);
  } catch (const Error& error) {
    told.code = error.code();
    told.json = OrderedJson{{"error", error.what()}};
    context.note(fmt::format("{}: {}", title_of(one), error.what()));
  }
}

void print_told(const Context& context, const Switch& one, const Told& told) {
  if (context.options().json) {
    if (told.json.is_null()) {
      return;
    }
    OrderedJson line = json_of(one);
    line.update(told.json);
    context.print_json(line);
  } else {
    context.print(told.text);
  }
}

// A line from the terminal, or nothing when a signal came or it is closed.
std::string read_line() {
  std::array<pollfd, 2> fds = {pollfd{STDIN_FILENO, POLLIN, 0},
                               pollfd{interrupt_descriptor(), POLLIN, 0}};
  while (::poll(fds.data(), fds.size(), -1) < 0 && errno == EINTR && !interrupt_seen()) {
  }
  std::string line;
  if (!interrupt_seen()) {
    std::getline(std::cin, line);
  }
  return line;
}

}  // namespace

std::string title_of(const Switch& one) {
  const std::string name = terminal_text(one.identity.name);
  return name.empty() ? mac_display(one.mac) : fmt::format("{} ({})", name, mac_display(one.mac));
}

OrderedJson json_of(const Switch& one) {
  OrderedJson line;
  line["mac"] = mac_display(one.mac);
  line["name"] = one.identity.name;
  return line;
}

ExitCode worse(ExitCode one, ExitCode other) {
  const auto rank = [](ExitCode code) {
    switch (code) {
      case ExitCode::Done:
        return 0;
      case ExitCode::NoAnswer:
        return 1;
      case ExitCode::Failed:
        return 2;
      case ExitCode::Usage:
        return 3;
    }
    return 3;
  };
  return rank(one) >= rank(other) ? one : other;
}

std::vector<Switch> selected(Context& context, Search search) {
  return selected(context, context.options().selector, search);
}

std::vector<Switch> selected(Context& context, const std::string& selector, Search search) {
  if (!context.options().udp.empty()) {
    search = Search::Quick;  // there is nobody but the one host
  }
  const Duration window = search == Search::Whole ? kWholeWindow : kQuickWindow;
  Selection selection;
  try {
    selection =
        context.run(select_switches(context.session(), selector, context.patience(window), search));
  } catch (const Error& error) {
    if (error.code() == ExitCode::NoAnswer) {
      context.note_wire();
    }
    throw;
  }
  for (const std::string& fault : selection.faults) {
    context.note(fault);
  }
  return std::move(selection.switches);
}

ExitCode each_switch(Context& context, const std::vector<Switch>& switches, bool headings,
                     const SwitchJob& job, size_t limit) {
  std::vector<Told> told(switches.size());
  const auto run_one = [&](size_t i) { return run_job(context, switches[i], job, told[i]); };
  context.run(context.session().each(switches.size(), limit, run_one));
  ExitCode worst = ExitCode::Done;
  bool first = true;
  for (size_t i = 0; i < switches.size(); ++i) {
    worst = worse(worst, told[i].code);
    const bool headed =
        headings && switches.size() > 1 && !context.options().json && !told[i].text.empty();
    if (headed) {
      context.print((first ? "" : "\n") + heading(context, switches[i]));
      first = false;
    }
    print_told(context, switches[i], told[i]);
  }
  if (worst == ExitCode::NoAnswer) {
    context.note_wire();
  }
  return worst;
}

ExitCode dry_run(Context& context,
                 const std::function<std::vector<std::string>(std::string)>& make) {
  const std::string& selector = context.options().selector;
  const auto mac = parse_mac(selector);
  const std::string who = mac                ? mac_display(*mac)
                          : selector.empty() ? "the only switch"
                          : selector == "all"
                              ? "every switch"
                              : fmt::format("the switch called \"{}\"", terminal_text(selector));
  for (const std::string& text : make(mac ? mac_text(*mac) : std::string(kUnknownMac))) {
    print_message(context, text, who);
  }
  return ExitCode::Done;
}

ExitCode dry_probe(const Context& context) {
  const auto mac = parse_mac(context.options().selector);
  print_message(context, probe_text(kUnknownOwnMac, 1), mac ? mac_display(*mac) : "every switch");
  return ExitCode::Done;
}

bool confirmed(Context& context, const std::string& question) {
  if (context.options().yes) {
    return true;
  }
  if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDERR_FILENO) == 0) {
    throw Error(question + " Nobody is there to be asked; --yes answers beforehand",
                ExitCode::Usage);
  }
  std::fflush(stdout);
  fmt::print(stderr, "{} [y/N] ", question);
  std::fflush(stderr);
  const std::string line = read_line();
  if (interrupt_seen()) {
    fmt::print(stderr, "\n");
    throw Interrupted();
  }
  const bool yes = line == "y" || line == "Y" || line == "yes";
  if (!yes) {
    context.note("nothing was done");
  }
  return yes;
}

}  // namespace qel_gateway::cli
