// SPDX-License-Identifier: Apache-2.0
//
// Ctrl-C and its kin: the signals that end qelctl wake whatever waits and are then looked at in
// peace, so that terminal and files are left whole.
#pragma once

namespace qel_gateway::cli {

// Catches SIGINT, SIGTERM, SIGHUP and SIGQUIT from now on, and lets a change of the window's size
// end waits. Called once, by main.
void catch_interrupts();

// True once one of them came.
bool interrupt_seen();

// Which it was; 0 for none.
int interrupt_signal();

// A descriptor that is readable from then on; -1 before catch_interrupts().
int interrupt_descriptor();

}  // namespace qel_gateway::cli
