// SPDX-License-Identifier: Apache-2.0
//
// What morvad and morvactl say of a wrong command line, in the same words: the program's name, what
// is wrong, and where to read on. Only the two programs' main.cpp include this.
#ifndef MORVA_LINUX_USAGE_H
#define MORVA_LINUX_USAGE_H

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace morva {

/// The command that `app`, which was parsed or gave up parsing, came to: "morvactl l2".
inline std::string command_of(const CLI::App* app) {
  std::string name = app->get_name();
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    name += " " + app->get_name();
  }
  return name;
}

inline std::string read_on(const std::string& command) {
  return "\n\"" + command + " --help\" says more\n";
}

/// For CLI::App::failure_message. All our options with a value that can be converted wrongly are
/// whole numbers.
inline std::string usage_fault(const CLI::App* app, const CLI::Error& error) {
  static constexpr char kConvert[] = "Could not convert: ";
  std::string why = error.what();
  const size_t sign = why.find(" = ");
  if (why.rfind(kConvert, 0) == 0 && sign != why.npos) {
    const size_t name = sizeof kConvert - 1;
    why = why.substr(name, sign - name) + ": " + why.substr(sign + 3) + " is no whole number";
  }
  return app->get_name() + ": " + why + read_on(command_of(app));
}

/// Where the command line ends before a command, or at one that needs another: what there is to
/// choose from. "" where nothing is missing.
inline std::string choice_fault(const CLI::App* app) {
  const std::string name = command_of(app);
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
  }
  std::string names;
  for (const CLI::App* one : app->get_subcommands({})) {
    names += " " + one->get_name();
  }
  return names.empty() ? "" : name + " needs a command:" + names + read_on(name);
}

/// Writes out what was printed. False, having said so, when not all of it could be written.
inline bool all_written(const char* program) {
  const bool good = std::cout.good();
  errno = 0;
  std::cout.flush();
  if (fflush(stdout) == 0 && ferror(stdout) == 0 && good && std::cout.good()) {
    return true;
  }
  const std::string why = errno != 0 ? std::string(": ") + strerror(errno) : "";
  fprintf(stderr, "%s: not all of the output could be written%s\n", program, why.c_str());
  return false;
}

}  // namespace morva

#endif  // MORVA_LINUX_USAGE_H
