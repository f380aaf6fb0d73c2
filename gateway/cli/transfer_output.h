// SPDX-License-Identifier: Apache-2.0
//
// Transfers of several switches at once, with progress and a summary.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "gateway/cli/each_switch.h"
#include "gateway/transfer.h"

namespace qel_gateway::cli {

// What a transfer that did not fail came to.
struct Transferred {
  std::string words;  // for people, fit for a terminal
  OrderedJson json;
  ExitCode code = ExitCode::Done;
};

using TransferJob = std::function<Task<Transferred>(const Switch&, const ProgressSink&)>;

// Runs `job` on each switch, a few at a time, with one bar each on standard error; then says on
// standard output what became of each, those that a signal kept from starting included. Returns
// the worst status; throws Interrupted after the summary when a signal came.
ExitCode transfer_each(Context& context, const std::string& command,
                       const std::vector<Switch>& switches, const TransferJob& job);

}  // namespace qel_gateway::cli
