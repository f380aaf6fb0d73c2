// SPDX-License-Identifier: Apache-2.0
//
// What port_settings.cpp and system_settings.cpp share.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "gateway/session.h"
#include "gateway/settings.h"

namespace qel_gateway {

// Pause between two looks at what the switch reports.
inline constexpr Duration kLookAgain{150};

// Sends a set, once, and expects nothing back.
void send_set(Session& session, const Switch& one, const std::string& text);

// Calls `look` until it gives Took, at least once and at most until `patience` is over; then gives
// what the last look gave.
Task<EffectReport> look_until(Session& session, Duration patience,
                              std::function<Task<EffectReport>()> look);

}  // namespace qel_gateway
