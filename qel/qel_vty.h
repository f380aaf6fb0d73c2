// SPDX-License-Identifier: Apache-2.0
//
// The agent's commands in the platform's shell: on or off, the debug mask, and the part of the
// saved configuration that keeps the agent's switch.
#pragma once

struct vty;

// Installs the nodes and commands. Called once, at start-up, after vty_init.
void qel_vty_init();

// Writes the agent's switch into a configuration. Returns 1.
int qel_config_write(struct vty* vty);
