// SPDX-License-Identifier: Apache-2.0
//
// Choosing switches.
#include "gateway/select.h"

#include <algorithm>

#include <fmt/format.h>

#include "gateway/error.h"
#include "gateway/text.h"

namespace qel_gateway {

namespace {

constexpr Duration kQuiet{400};  // after the last new answer, when a quick search looks for one

std::string list_of(const std::vector<Switch>& switches) {
  constexpr size_t kShown = 10;
  std::string list;
  for (size_t i = 0; i < std::min(switches.size(), kShown); ++i) {
    list += fmt::format("\n  {}  {}", mac_display(switches[i].mac),
                        terminal_text(switches[i].identity.name));
  }
  if (switches.size() > kShown) {
    list += fmt::format("\n  and {} more", switches.size() - kShown);
  }
  return list;
}

void require_one(const std::vector<Switch>& fitting, const std::vector<Switch>& all,
                 const std::string& selector) {
  if (fitting.size() == 1) {
    return;
  }
  if (fitting.empty()) {
    throw Error(fmt::format("no switch is called \"{}\"; these answered:{}",
                            terminal_text(selector), list_of(all)),
                ExitCode::NoAnswer);
  }
  if (selector.empty()) {
    throw Error(fmt::format("{} switches answered; choose with --switch:{}", fitting.size(),
                            list_of(fitting)),
                ExitCode::Usage);
  }
  throw Error(fmt::format("{} switches are called \"{}\"; choose by MAC:{}", fitting.size(),
                          terminal_text(selector), list_of(fitting)),
              ExitCode::Usage);
}

}  // namespace

Task<Selection> select_switches(Session& session, std::string selector, Duration window,
                                Search search) {
  const auto mac = parse_mac(selector);
  const bool all = selector == "all";
  DiscoveryOptions options;
  options.window = window;
  options.only = mac;
  if (search == Search::Quick && !all && !mac) {
    options.quiet = kQuiet;
  }
  Discovery found = co_await discover(session, options);
  if (found.interrupted) {
    throw Interrupted();
  }
  if (found.switches.empty()) {
    const std::string who = mac ? mac_display(*mac) : "any switch";
    throw Error(fmt::format("no answer from {}", who), ExitCode::NoAnswer);
  }
  Selection selection;
  selection.faults = std::move(found.faults);
  if (all || mac) {
    selection.switches = std::move(found.switches);
    co_return selection;
  }
  for (const Switch& one : found.switches) {
    if (selector.empty() || one.identity.name == selector) {
      selection.switches.push_back(one);
    }
  }
  require_one(selection.switches, found.switches, selector);
  co_return selection;
}

}  // namespace qel_gateway
