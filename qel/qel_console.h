// SPDX-License-Identifier: Apache-2.0
//
// The console: where the agent's traces and diagnostics go, line by line.
#pragma once

#include <cstdint>

// Bits of the debug mask; each opens one kind of trace.
inline constexpr uint32_t kDebugGateway = 4;  // gateways, interface status, joins, local events
inline constexpr uint32_t kDebugUdp = 16;     // datagrams received
inline constexpr uint32_t kDebugFrame = 32;   // frames, commands and transfers

// True when the device record's debug mask has that bit.
bool qel_debug(uint32_t bit);

// Writes one text, printf style and with its own line end, to "/dev/console", which is opened for
// this text alone; to standard error when it cannot be opened.
void qel_console(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The same to standard output, for the diagnostics that belong there.
void qel_stdout(const char* format, ...) __attribute__((format(printf, 1, 2)));
