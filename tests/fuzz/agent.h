// SPDX-License-Identifier: Apache-2.0
//
// The agent on the fake switch, for the fuzz targets: everything live, four ports, every module
// answering, every trace on.
#pragma once

#include <string_view>

// Starts the agent once for the process; later calls do nothing.
void fuzz_agent_start();

// Between two inputs: ends transfers, forgets gateways and what the fake has recorded, so that an
// input does the same whatever came before it, and memory stays flat.
void fuzz_agent_rest();

// Every module command that the agent uses answers this text from now on.
void fuzz_agent_replies(std::string_view text);

// Ends the process unless the agent still reads its links and answers a probe.
void fuzz_agent_expect_alive();
