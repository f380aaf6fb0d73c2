// SPDX-License-Identifier: Apache-2.0
//
// The agent's records come from calloc; the one that the unit tests link in its place can fail.
#pragma once

// While it is true every calloc fails. Whoever sets it clears it, or ends the process.
extern bool g_calloc_fails;
