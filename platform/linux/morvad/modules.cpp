// SPDX-License-Identifier: Apache-2.0
//
// See modules.h.
#include "platform/linux/morvad/modules.h"

#include <algorithm>
#include <cstring>

#include "platform/linux/morvad/names.h"

namespace morvad {
namespace {

constexpr const Module* kAll[] = {&kMono, &kPoe,   &kStatistics, &kMstp, &kLlpp, &kStp,
                                  &kLldp, &kZebra, &kIfmgr,      &kHal,  &kSys,  &kControl};

const Command& find_command(const Module& module, const std::string& name) {
  for (const Command& command : module.commands) {
    if (command.name == name) {
      return command;
    }
  }
  throw Refused("cmd: " + std::string(module.name) + " has no command " + in_quotes(name));
}

}  // namespace

std::span<const Module* const> all_modules() {
  return kAll;
}

void serve(Context& context, const Module& module, std::string_view text, pid_t pid,
           std::string& out) {
  out.clear();
  try {
    Request request;
    parse_request(text, request);
    request.pid = pid;
    if (request.module != module.name) {
      throw Refused("mdl: this is " + std::string(module.name));
    }
    find_command(module, request.command).run(context, request, out);
  } catch (const Refused& refusal) {
    refuse(out, refusal.what());
  }
}

Port& named_port(Context& context, const std::string& name) {
  Port* port = context.sw.find(name);
  if (port == nullptr) {
    throw Refused("no port is named " + in_quotes(name));
  }
  return *port;
}

void store_or_refuse(Context& context, const SettingPairs& pairs) {
  const int result = context.sw.settings().store(pairs);
  if (result != 0) {
    throw Refused(std::string("settings not stored: ") + strerror(-result));
  }
}

}  // namespace morvad
