// SPDX-License-Identifier: Apache-2.0
//
// The whole of qelctl apart from the process: what main calls, and tests too.
#pragma once

namespace qel_gateway::cli {

// Reads the command line and runs the command. Returns the exit status: 0 done, 1 refused or
// failed, 2 wrong usage, 3 no answer, 128 + number after a signal.
int run_command_line(int argc, char** argv);

}  // namespace qel_gateway::cli
