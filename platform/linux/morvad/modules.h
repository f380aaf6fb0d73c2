// SPDX-License-Identifier: Apache-2.0
//
// The modules that morvad plays: one table of commands for each, and the one function that serves a
// request. A command reads its request, moves the switch, and writes its answer; it throws Refused
// for what it will not do. The messages are described in docs/platform-linux.md.
#ifndef MORVA_LINUX_MORVAD_MODULES_H
#define MORVA_LINUX_MORVAD_MODULES_H

#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/morvad/host.h"
#include "platform/linux/morvad/request.h"
#include "platform/linux/morvad/switch.h"

namespace morvad {

/// What a command works with.
struct Context {
  Switch& sw;
  Host& host;
};

struct Command {
  std::string_view name;
  void (*run)(Context& context, const Request& request, std::string& out);
};

struct Module {
  std::string_view name;  // also the name of its socket
  std::span<const Command> commands;
  bool wants_peer = false;  // its commands need to know the asking process
};

/// Queried by the agent, and by the gateway through it.
extern const Module kMono;
extern const Module kPoe;
extern const Module kStatistics;
extern const Module kMstp;
extern const Module kLlpp;
extern const Module kStp;
extern const Module kLldp;
extern const Module kZebra;

/// Used by the library in the agent.
extern const Module kIfmgr;
extern const Module kHal;
extern const Module kSys;

/// Used by morvactl.
extern const Module kControl;

/// All of them.
std::span<const Module* const> all_modules();

/// Serves one request text that came in for `module`, from process `pid` (0: unknown). Writes the
/// answer to `out`. Throws nothing but what memory shortage throws.
void serve(Context& context, const Module& module, std::string_view text, pid_t pid,
           std::string& out);

/// The row of a port in the interface table, and the one of the management interface.
json interface_row(const Port& port);
json management_row();

/// Shared by several modules: the port that a message names, or Refused.
Port& named_port(Context& context, const std::string& name);

/// Stores settings or throws Refused.
void store_or_refuse(Context& context, const SettingPairs& pairs);

/// Tells the agent the PoE figures of all ports, as a local event. One that cannot take it now is
/// told soon.
void send_poe_update(Context& context);

/// The same where a port can feed power, but one or two seconds from now, and again until the agent
/// takes it: one that says that it starts does not listen yet.
void send_poe_update_soon(Context& context);

/// Back to the factory's settings. Throws Refused when they cannot be stored.
void restore_factory(Context& context);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_MODULES_H
