// SPDX-License-Identifier: Apache-2.0
//
// What every command of qelctl works with: the options, the wire, and the ways to speak to people.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gateway/discovery.h"
#include "gateway/error.h"
#include "gateway/requests.h"
#include "gateway/session.h"
#include "gateway/table.h"
#include "gateway/transport.h"

namespace CLI {
class App;
}

namespace qel_gateway::cli {

// Options that all commands share.
struct Options {
  std::string interface;          // -i
  std::string udp;                // --udp
  std::string selector;           // --switch: a MAC, a name or "all"; empty: the only one
  std::optional<double> timeout;  // --timeout, seconds
  std::string colour = "auto";    // --color
  bool json = false;
  bool yes = false;
  bool dry_run = false;
};

class Context {
 public:
  explicit Context(Options options);
  ~Context();

  const Options& options() const { return options_; }

  // The wire, opened at the first call. Throws Error when it cannot be.
  Session& session();
  Transport& transport();

  // How long to wait for an answer: --timeout or `otherwise`.
  Duration patience(Duration otherwise = Duration{2000}) const;

  // Runs a task; throws Error when Ctrl-C ended it.
  template <typename T>
  T run(Task<T> task) {
    return session().run(std::move(task));
  }

  // How tables are laid out on standard output.
  TableStyle style() const;
  // Whether standard error takes colour.
  bool error_colour() const;

  // Standard output: a text as it stands; a line of JSON.
  void print(const std::string& text) const;
  void print_json(const OrderedJson& value) const;
  // Standard error, after "qelctl: ".
  void note(const std::string& text) const;
  // The same, but each text only once.
  void note_once(const std::string& text);

  // After an answer stayed away: what may be wrong with the wire, once.
  void note_wire();

 private:
  Options options_;
  std::unique_ptr<Transport> transport_;
  SteadyClock clock_;
  std::unique_ptr<Session> session_;
  std::vector<std::string> noted_;
};

// What main runs after the command line has been read.
using Action = std::function<ExitCode(Context&)>;

// Where a subcommand leaves its action.
struct Choice {
  Action action;
};

// Each adds one command, or a family of them, to the command line.
void add_discover(CLI::App& app, Choice& choice);
void add_show(CLI::App& app, Choice& choice);
void add_ports(CLI::App& app, Choice& choice);  // ports, stats, poe, clients
void add_port(CLI::App& app, Choice& choice);
void add_transfer(CLI::App& app, Choice& choice);  // backup, restore, firmware
void add_live(CLI::App& app, Choice& choice);      // watch, top
void add_system(CLI::App& app, Choice& choice);    // ip, time, name, active, reboot, reset, query

}  // namespace qel_gateway::cli
