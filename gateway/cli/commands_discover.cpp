// SPDX-License-Identifier: Apache-2.0
//
// qelctl discover: who is on the wire.
#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "gateway/cli/context.h"
#include "gateway/cli/identity_output.h"

namespace qel_gateway::cli {

namespace {

ExitCode run_discover(Context& context, size_t expected) {
  DiscoveryOptions options;
  options.window = context.patience(options.window);
  if (context.options().dry_run) {
    print_message(context, probe_text(kUnknownOwnMac, 1), "every switch");
    return ExitCode::Done;
  }
  options.expected = expected;
  const Discovery found = context.run(discover(context.session(), options));
  for (const std::string& fault : found.faults) {
    context.note(fault);
  }
  if (context.options().json) {
    for (const Switch& one : found.switches) {
      context.print_json(identity_json(one));
    }
  } else if (!found.switches.empty()) {
    context.print(identity_table(found.switches).text(context.style()));
  }
  if (found.interrupted) {
    throw Interrupted();
  }
  if (found.switches.empty()) {
    context.note("no switch answered");
    context.note_wire();
    return ExitCode::NoAnswer;
  }
  return ExitCode::Done;
}

}  // namespace

void add_discover(CLI::App& app, Choice& choice) {
  auto* command = app.add_subcommand("discover", "Find the switches on the wire");
  command->footer(
      "Probes go to every switch; answers are gathered for --timeout seconds (1.5).\n\n"
      "Example:\n  qelctl -i eth1 discover --json");
  auto expected = std::make_shared<size_t>(0);
  command->add_option("--expect", *expected, "Stop as soon as this many have answered")
      ->type_name("N");
  command->callback([&choice, expected] {
    choice.action = [expected](Context& context) { return run_discover(context, *expected); };
  });
}

}  // namespace qel_gateway::cli
