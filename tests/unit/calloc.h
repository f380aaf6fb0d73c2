// SPDX-License-Identifier: Apache-2.0
//
// The agent's records come from calloc; the one that the unit tests link in its place can fail, and
// can be watched.
#pragma once

#include <cstddef>

// While it is true every calloc fails. Whoever sets it clears it, or ends the process.
extern bool g_calloc_fails;
// Runs at each calloc of the program when it is not null. Whoever sets it clears it.
extern void (*g_on_calloc)(size_t count, size_t size);
