// SPDX-License-Identifier: Apache-2.0
//
// The command line: shared options, the list of commands, and the exit status.
#include "gateway/cli/command_line.h"

#include <algorithm>
#include <cstdio>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "gateway/cli/context.h"
#include "gateway/cli/interrupt.h"
#include "gateway/cli/seconds.h"

namespace qel_gateway::cli {

namespace {

constexpr int kSignalExit = 128;

void add_shared_options(CLI::App& app, Options& options) {
  app.add_option("-i,--interface", options.interface, "Network interface on the switches' wire")
      ->envname("QELCTL_INTERFACE")
      ->type_name("NAME");
  app.add_option("--udp", options.udp, "Talk UDP to this one host instead of Ethernet")
      ->type_name("HOST");
  app.add_option("-s,--switch", options.selector, "MAC or name of a switch, or \"all\"")
      ->envname("QELCTL_SWITCH")
      ->type_name("WHICH");
  app.add_option("-t,--timeout", options.timeout, "Seconds to wait for an answer")
      ->check(seconds_range(0.05, 3600))
      ->type_name("SECONDS");
  app.add_option("--color", options.colour, "Colours: auto, always, never")
      ->check(CLI::IsMember({"auto", "always", "never"}).description(""))
      ->type_name("WHEN");
  app.add_flag("--json", options.json, "One JSON object a line, a line for each switch");
  app.add_flag("-y,--yes", options.yes, "Do not ask before service is interrupted");
  app.add_flag("-n,--dry-run", options.dry_run, "Show the messages and send none");
}

void add_commands(CLI::App& app, Choice& choice) {
  add_discover(app, choice);
  add_show(app, choice);
  add_ports(app, choice);
  add_port(app, choice);
  add_live(app, choice);
  add_system(app, choice);
  add_transfer(app, choice);
}

// What is wrong with the command line, in one line, and where to read on.
std::string usage_fault(const CLI::App* app, const CLI::Error& error) {
  std::string why = error.what();
  // The library tells several of them from the last to the first.
  const std::vector<std::string> unexpected = app->remaining(true);
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError) &&
      unexpected.size() > 1) {
    why = fmt::format("The following arguments were not expected: {}", fmt::join(unexpected, " "));
  }
  if (const auto at = why.find("At Most 1 required"); at != std::string::npos) {
    why.replace(at, std::string::npos, "given more than once");
  }
  return fmt::format("{}: {}\n\"{} --help\" says more\n", app->get_name(), why, app->get_name());
}

// The commands to choose from where `app`, which was parsed, ends without one.
std::string choice_fault(const CLI::App* app) {
  std::string name = app->get_name();
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    name += " " + app->get_name();
  }
  std::vector<std::string> names;
  for (const CLI::App* one : app->get_subcommands({})) {
    names.push_back(one->get_name());
  }
  return fmt::format("{} needs a command: {}\n\"{} --help\" says more\n", name,
                     fmt::join(names, " "), name);
}

// Says in the help of every command where the shared options are explained.
void point_to_shared_options(CLI::App& app) {
  for (CLI::App* one : app.get_subcommands({})) {
    one->footer(one->get_footer() + "\n\nOptions of all commands: qelctl --help");
    point_to_shared_options(*one);
  }
}

int run_action(const Options& options, const Choice& choice) {
  Context context(options);
  try {
    const ExitCode code = choice.action(context);
    return static_cast<int>(code);
  } catch (const Interrupted&) {
    return kSignalExit + interrupt_signal();
  } catch (const Error& error) {
    context.note(error.what());
    return static_cast<int>(error.code());
  } catch (const std::exception& error) {
    context.note(fmt::format("unexpected: {}", error.what()));
    return static_cast<int>(ExitCode::Failed);
  }
}

}  // namespace

int run_command_line(int argc, char** argv) {
  Options options;
  Choice choice;
  CLI::App app("Finds, watches and runs the switches on a wire.", "qelctl");
  app.footer(
      "With one switch on the wire --switch can be left out.\n"
      "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 no answer.\n"
      "Example: qelctl -i eth1 discover");
  app.set_version_flag("--version", "qelctl " QELCTL_VERSION);
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.failure_message(usage_fault);
  add_shared_options(app, options);
  add_commands(app, choice);
  point_to_shared_options(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    app.exit(error);
    return static_cast<int>(ExitCode::Usage);
  }
  if (!choice.action) {
    fmt::print(stderr, "{}", choice_fault(&app));
    return static_cast<int>(ExitCode::Usage);
  }
  // The environment's interface is a habit, not a wish: only one that was typed contradicts --udp.
  const auto& typed = app.parse_order();
  const bool names_interface =
      std::ranges::find(typed, app.get_option("--interface")) != typed.end();
  if (!options.udp.empty() && !options.interface.empty() && names_interface) {
    fmt::print(stderr, "qelctl: -i and --udp exclude each other\n");
    return static_cast<int>(ExitCode::Usage);
  }
  const int status = run_action(options, choice);
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    fmt::print(stderr, "qelctl: not all of the output could be written\n");
    return static_cast<int>(ExitCode::Failed);
  }
  return status;
}

}  // namespace qel_gateway::cli
