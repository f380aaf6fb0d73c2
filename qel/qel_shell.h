// SPDX-License-Identifier: Apache-2.0
//
// Shell commands. All that the agent ever runs passes through here.
#pragma once

// Runs `command` by the shell and waits for it. Returns 0 when it ran and succeeded, else non-zero.
int qel_shell_run(const char* command);
