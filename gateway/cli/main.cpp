// SPDX-License-Identifier: Apache-2.0
//
// qelctl: the command line of the gateway. Reads the options, runs one command, and turns what went
// wrong into a line on standard error and an exit status.
#include <csignal>
#include <cstdio>

#include "gateway/cli/command_line.h"
#include "gateway/cli/interrupt.h"

int main(int argc, char** argv) {
  qel_gateway::cli::catch_interrupts();
  return qel_gateway::cli::run_command_line(argc, argv);
}
