// SPDX-License-Identifier: Apache-2.0
//
// The device last learnt on each port: its kind, and the "ports_client" report that tells the
// gateway about it. The fields live in qel_port; local events (qel_ipc.h) fill them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/uif.h"
#include "qel/qel_text.h"

// Client type codes.
inline constexpr uint8_t kQelClientUnknown = 0;
inline constexpr uint8_t kQelClientSwitch = 1;
inline constexpr uint8_t kQelClientTerminal = 2;

// The client type that `text` tells by the first keyword, in a fixed order, that occurs in it
// (case-sensitive); 0 when none does. The keyword found is told on standard output.
uint8_t qel_client_type_classify(const char* text);

// The long name of a type code; "err" for a code that does not exist. Nobody calls it.
const char* qel_client_type_name(int code);

// Writes the client report of one physical port; a port without a record has no client. Returns its
// length, closing NUL not counted.
size_t qel_json_ports_client(const struct uif* uif, qel_text& out);

// Six bytes as 12 lower-case hexadecimal digits, in one static buffer that the next call reuses.
const char* qel_mac_text(const uint8_t mac[6]);
