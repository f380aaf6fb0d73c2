// SPDX-License-Identifier: Apache-2.0
//
// Running one command on every switch that was meant: side by side, told in order, with one exit
// status for all.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "gateway/cli/context.h"
#include "gateway/select.h"

namespace qel_gateway::cli {

// What one switch's part of a command came to.
struct Told {
  std::string text;  // for people, ended by a newline; empty: nothing to print
  OrderedJson json;  // for --json, without "mac" and "name"; null: nothing to print
  ExitCode code = ExitCode::Done;
};

using SwitchJob = std::function<Task<Told>(const Switch&)>;

// The switches that --switch means; notes what was dropped on the way. Only commands that change
// nothing may search quickly.
std::vector<Switch> selected(Context& context, Search search = Search::Whole);
// The same for a selector of the command's own.
std::vector<Switch> selected(Context& context, const std::string& selector, Search search);

// Runs `job` on each of `switches`, at most `limit` at a time, and prints what it tells in their
// order: as JSON lines, or as texts. With more than one switch each text gets a heading when
// `headings` is true. An Error of a job is told as that switch's failure. Returns the worst status.
ExitCode each_switch(Context& context, const std::vector<Switch>& switches, bool headings,
                     const SwitchJob& job, size_t limit = 16);

// The worse of two exit statuses: failed before no answer before done.
ExitCode worse(ExitCode one, ExitCode other);

// "office-sw (0a:1b:2c:3d:4e:5f)", fit for a terminal; the MAC alone of a switch without a name.
std::string title_of(const Switch& one);

// {"mac":...,"name":...}, the start of every JSON line.
OrderedJson json_of(const Switch& one);

// With --dry-run: prints `texts` for the switch that --switch means. `make` gets its MAC text.
ExitCode dry_run(Context& context,
                 const std::function<std::vector<std::string>(std::string)>& make);

// The same for a command that only probes: a probe goes to everybody unless --switch is a MAC.
ExitCode dry_probe(const Context& context);

// Asks a yes-or-no question on the terminal. True at once with --yes. Throws Error (usage) when
// there is no terminal to ask on.
bool confirmed(Context& context, const std::string& question);

}  // namespace qel_gateway::cli
